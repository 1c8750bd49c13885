#include "platform/io/IncrementalFileWorker.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

IncrementalFileWorker::IncrementalFileWorker(const QString& path)
    : mPath(path)
{
}

IncrementalFileWorker::~IncrementalFileWorker()
{
    if (mFd >= 0)
        ::close(mFd);
}

QString IncrementalFileWorker::failure(const char* what) const
{
    return QStringLiteral("cannot %1 %2: %3").arg(QLatin1String(what), mPath, QString::fromLocal8Bit(std::strerror(errno)));
}

// Opened on first use, on this thread; a file that is already there is continued at its end.
bool IncrementalFileWorker::ensureOpen()
{
    if (mFd >= 0)
        return true;
    if (!mOpenError.isEmpty())
        return false;
    mFd = ::open(mPath.toLocal8Bit().constData(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
    if (mFd < 0) {
        mOpenError = failure("open");
        return false;
    }
    mPosition = ::lseek(mFd, 0, SEEK_END);
    mSize = mPosition;
    return true;
}

bool IncrementalFileWorker::writeChunk(const QByteArray& data, QString* error)
{
    qint64 done = 0;
    while (done < data.size()) {
        const ssize_t n = ::pwrite(mFd, data.constData() + done, size_t(data.size() - done), off_t(mPosition + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            *error = failure("write to");
            if (done > 0)
                cutBackTo(qMax(mSize, mPosition), error);
            return false;
        }
        done += n;
    }
    return true;
}

void IncrementalFileWorker::cutBackTo(qint64 size, QString* error)
{
    if (::ftruncate(mFd, off_t(size)) != 0)
        *error += QStringLiteral("; ") + failure("cut back the partial write in");
}

void IncrementalFileWorker::write(const QByteArray& data)
{
    if (!ensureOpen()) {
        emit written(-1, mOpenError);
        return;
    }
    if (mHoldWrites) {
        emit written(-1, QStringLiteral("not written to %1: an earlier chunk failed and no seek followed").arg(mPath));
        return;
    }
    QString error;
    if (!writeChunk(data, &error)) {
        mHoldWrites = true;
        emit written(-1, error);
        return;
    }
    mPosition += data.size();
    mSize = qMax(mSize, mPosition);
    emit written(data.size(), QString());
}

void IncrementalFileWorker::seek(qint64 position)
{
    if (ensureOpen())
        mPosition = position;
    mHoldWrites = false;
}

// Growing only reserves the blocks (so a full disk shows now, not in the middle of a
// download); the file itself never looks longer than what was written, because a player
// reading it while it grows must never meet bytes that were not downloaded.
void IncrementalFileWorker::reserve(qint64 size, QString* error)
{
    if (::fallocate(mFd, FALLOC_FL_KEEP_SIZE, 0, off_t(size)) != 0 && errno != EOPNOTSUPP)
        *error = failure("reserve room for");
}

// Cutting to the file's own size or below also gives back every block reserved past the new
// end: a cache that accounts for file sizes cannot see those blocks, so they must not linger.
// ext4 frees them on truncate even when the size does not change; file systems that keep them
// (tmpfs) need the hole punched explicitly. Everything reserved lies within the blocks counted.
void IncrementalFileWorker::cutAndRelease(qint64 size, qint64 allocatedBytes, QString* error)
{
    if (::ftruncate(mFd, off_t(size)) != 0) {
        *error = failure("truncate");
        return;
    }
    if (allocatedBytes > size)
        ::fallocate(mFd, FALLOC_FL_PUNCH_HOLE | FALLOC_FL_KEEP_SIZE, off_t(size), off_t(allocatedBytes - size));
    mSize = size;
    mPosition = qMin(mPosition, size);
}

void IncrementalFileWorker::resize(qint64 size)
{
    if (!ensureOpen()) {
        emit resized(-1, mOpenError);
        return;
    }
    struct stat info;
    QString error;
    if (::fstat(mFd, &info) != 0)
        error = failure("inspect");
    else if (size > info.st_size)
        reserve(size, &error);
    else
        cutAndRelease(size, qint64(info.st_blocks) * 512, &error);
    emit resized(error.isEmpty() ? size : -1, error);
}
