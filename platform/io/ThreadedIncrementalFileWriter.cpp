#include "platform/io/ThreadedIncrementalFileWriter.h"

#include "platform/io/FileWriterThread.h"
#include "platform/io/IncrementalFileWorker.h"

#include <QPointer>

ThreadedIncrementalFileWriter::ThreadedIncrementalFileWriter(const QString& path, QObject* parent)
    : QObject(parent)
    , mPath(path)
    , mWorker(new IncrementalFileWorker(path))
{
    mWorker->moveToThread(FileWriterThread::thread());
    connect(mWorker, &IncrementalFileWorker::written, this, &ThreadedIncrementalFileWriter::onWritten);
    connect(mWorker, &IncrementalFileWorker::resized, this, &ThreadedIncrementalFileWriter::resized);
}

ThreadedIncrementalFileWriter::~ThreadedIncrementalFileWriter()
{
    mWorker->deleteLater();
}

void ThreadedIncrementalFileWriter::write(const QByteArray& data)
{
    mPendingChunks.enqueue(data.size());
    mBacklogBytes += data.size();
    IncrementalFileWorker* worker = mWorker;
    QMetaObject::invokeMethod(worker, [worker, data] { worker->write(data); }, Qt::QueuedConnection);
    if (!mBacklogIsHigh && mBacklogBytes > kBacklogHighBytes) {
        mBacklogIsHigh = true;
        emit backlogHigh();
    }
}

// Every write is reported exactly once and in order, so the oldest pending size is this one's.
void ThreadedIncrementalFileWriter::onWritten(qint64 bytes, const QString& error)
{
    if (!mPendingChunks.isEmpty())
        mBacklogBytes -= mPendingChunks.dequeue();
    const QPointer<ThreadedIncrementalFileWriter> alive(this);
    emit dataWritten(bytes, error);
    if (!alive)
        return;   // a listener deleted the writer (its owner stopped)
    if (mBacklogIsHigh && mBacklogBytes <= kBacklogLowBytes) {
        mBacklogIsHigh = false;
        emit backlogLow();
    }
}

void ThreadedIncrementalFileWriter::seek(qint64 position)
{
    IncrementalFileWorker* worker = mWorker;
    QMetaObject::invokeMethod(worker, [worker, position] { worker->seek(position); }, Qt::QueuedConnection);
}

void ThreadedIncrementalFileWriter::resize(qint64 size)
{
    IncrementalFileWorker* worker = mWorker;
    QMetaObject::invokeMethod(worker, [worker, size] { worker->resize(size); }, Qt::QueuedConnection);
}
