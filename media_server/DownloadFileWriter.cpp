#include "media_server/DownloadFileWriter.h"

#include "platform/io/ThreadedIncrementalFileWriter.h"
#include "platform/log/LogLine.h"

namespace MediaV2 {

DownloadFileWriter::DownloadFileWriter(const QString& path, qint64 size, QObject* parent)
    : QObject(parent)
    , mWriter(new ThreadedIncrementalFileWriter(path, this))
    , mFileEnd(size)
{
    connect(mWriter, &ThreadedIncrementalFileWriter::dataWritten, this, &DownloadFileWriter::onWritten);
    connect(mWriter, &ThreadedIncrementalFileWriter::resized, this, &DownloadFileWriter::onResized);
    connect(mWriter, &ThreadedIncrementalFileWriter::backlogHigh, this, &DownloadFileWriter::backlogHigh);
    connect(mWriter, &ThreadedIncrementalFileWriter::backlogLow, this, &DownloadFileWriter::backlogLow);
}

DownloadFileWriter::~DownloadFileWriter() = default;

qint64 DownloadFileWriter::backlogBytes() const
{
    return mWriter->backlogBytes();
}

void DownloadFileWriter::append(const QByteArray& data)
{
    mWriter->write(data);
    mFileEnd += data.size();
}

void DownloadFileWriter::restartAt(qint64 offset)
{
    mStaleReports = mWriter->pendingWrites();   // every chunk not yet reported, earlier stale ones included
    mWriter->resize(offset);
    ++mPendingResizes;
    mWriter->seek(offset);
    mFileEnd = offset;
}

void DownloadFileWriter::reserve(qint64 length)
{
    if (length <= mFileEnd)
        return;
    mWriter->resize(length);
    ++mPendingResizes;
}

void DownloadFileWriter::releaseReservedRoom()
{
    mWriter->resize(mFileEnd);
    ++mPendingResizes;
}

void DownloadFileWriter::finish()
{
    mFinishing = true;
    mFinishFailed = false;
    mWriter->resize(mFileEnd);
    ++mPendingResizes;
}

void DownloadFileWriter::onWritten(qint64 bytes, const QString& error)
{
    if (mStaleReports > 0) {
        --mStaleReports;
        return;
    }
    if (bytes < 0 && mFinishing)
        mFinishFailed = true;
    emit dataWritten(bytes, error);
}

// Resizes and writes are done in the order asked, so the last resize's report follows every
// chunk's report.
void DownloadFileWriter::onResized(qint64, const QString& error)
{
    if (mPendingResizes > 0)
        --mPendingResizes;
    if (!error.isEmpty() && mFinishing) {
        LOG_WARN << "Failed to resize cache file. " << error;
        mFinishFailed = true;
    } else if (!error.isEmpty()) {
        LOG_WARN << "could not resize the cache file (" << error << "); the download goes on without reserved room";
    }
    if (mFinishing && mPendingResizes == 0) {
        mFinishing = false;
        emit finished(!mFinishFailed);
    }
}

} // namespace MediaV2
