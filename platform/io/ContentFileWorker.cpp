#include "platform/io/ContentFileWorker.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/stat.h>
#include <unistd.h>

ContentFileWorker::ContentFileWorker(const QString& path)
    : mPath(path)
{
}

QString ContentFileWorker::failure(const char* what, const QString& path) const
{
    return QStringLiteral("cannot %1 %2: %3").arg(QLatin1String(what), path, QString::fromLocal8Bit(std::strerror(errno)));
}

bool ContentFileWorker::writeAll(int fd, const QByteArray& content)
{
    qint64 done = 0;
    while (done < content.size()) {
        const ssize_t n = ::write(fd, content.constData() + done, size_t(content.size() - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += n;
    }
    return ::fsync(fd) == 0;
}

void ContentFileWorker::writeContent(const QByteArray& content)
{
    QByteArray temporary = (mPath + QStringLiteral(".XXXXXX")).toLocal8Bit();
    const int fd = ::mkstemp(temporary.data());
    if (fd < 0) {
        emit written(-1, failure("create a file beside", mPath));
        return;
    }
    const bool complete = writeAll(fd, content) && ::fchmod(fd, 0644) == 0;
    const QString error = complete ? QString() : failure("write", QString::fromLocal8Bit(temporary));
    ::close(fd);
    if (!complete || ::rename(temporary.constData(), mPath.toLocal8Bit().constData()) != 0) {
        const QString reason = complete ? failure("replace", mPath) : error;
        ::unlink(temporary.constData());
        emit written(-1, reason);
        return;
    }
    emit written(content.size(), QString());
}
