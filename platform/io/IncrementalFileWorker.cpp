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
    return true;
}

void IncrementalFileWorker::write(const QByteArray& data)
{
    if (!ensureOpen()) {
        emit written(-1, mOpenError);
        return;
    }
    qint64 done = 0;
    while (done < data.size()) {
        const ssize_t n = ::pwrite(mFd, data.constData() + done, size_t(data.size() - done), off_t(mPosition + done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0) {
            emit written(-1, failure("write to"));
            return;
        }
        done += n;
    }
    mPosition += done;
    emit written(done, QString());
}

void IncrementalFileWorker::seek(qint64 position)
{
    if (ensureOpen())
        mPosition = position;
}

// Growing only reserves the blocks (so a full disk shows now, not in the middle of a
// download); the file itself never looks longer than what was written, because a player
// reading it while it grows must never meet bytes that were not downloaded. Shrinking cuts.
void IncrementalFileWorker::resize(qint64 size)
{
    if (!ensureOpen()) {
        emit resized(-1, mOpenError);
        return;
    }
    struct stat info;
    if (::fstat(mFd, &info) != 0) {
        emit resized(-1, failure("inspect"));
        return;
    }
    if (size < info.st_size) {
        if (::ftruncate(mFd, off_t(size)) != 0) {
            emit resized(-1, failure("truncate"));
            return;
        }
        mPosition = qMin(mPosition, size);
    } else if (size > info.st_size) {
        const int result = ::fallocate(mFd, FALLOC_FL_KEEP_SIZE, 0, off_t(size));
        if (result != 0 && errno != EOPNOTSUPP) {
            emit resized(-1, failure("reserve room for"));
            return;
        }
    }
    emit resized(size, QString());
}
