#include "media_server/StreamCacheCopier.h"

#include <QFile>
#include <QPointer>

#include <unistd.h>

namespace MediaV2 {

namespace {

// Large enough that a copy is a few hundred system calls per 100 MB, small enough that a
// cancelled copy stops within a few milliseconds.
constexpr qint64 kChunkBytes = 1024 * 1024;

} // namespace

StreamCacheCopier::StreamCacheCopier(int maxAtOnce, QObject* parent)
    : QObject(parent)
    , mCancelled(std::make_shared<std::atomic<bool>>(false))
{
    mPool.setMaxThreadCount(qMax(1, maxAtOnce));
    mPool.setObjectName(QStringLiteral("StreamCacheCopy"));
}

StreamCacheCopier::~StreamCacheCopier()
{
    cancelAll();
}

void StreamCacheCopier::start(const Copy& copy)
{
    ++mPending;
    std::shared_ptr<std::atomic<bool>> cancelled = mCancelled;
    QPointer<StreamCacheCopier> self(this);
    mPool.start([copy, cancelled, self] {
        Copy done = copy;
        done.error = copyFile(copy, *cancelled);
        // Queued to the copier's thread; dropped by Qt when the copier is gone by then.
        QMetaObject::invokeMethod(self, [self, done] {
            if (self)
                self->finish(done);
        }, Qt::QueuedConnection);
    });
}

void StreamCacheCopier::cancelAll()
{
    mCancelled->store(true);
    mPool.waitForDone();
    mCancelled = std::make_shared<std::atomic<bool>>(false);
}

void StreamCacheCopier::finish(const Copy& copy)
{
    --mPending;
    emit copied(copy);
}

// Returns the reason of a failure, empty on success.
QString StreamCacheCopier::copyFile(const Copy& copy, const std::atomic<bool>& cancelled)
{
    QFile source(copy.source);
    QFile partial(copy.target + QStringLiteral(".part"));
    if (!source.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot read %1: %2").arg(copy.source, source.errorString());
    if (!partial.open(QIODevice::WriteOnly | QIODevice::Truncate))
        return QStringLiteral("cannot write %1: %2").arg(partial.fileName(), partial.errorString());
    QString error;
    qint64 copied = 0;
    while (error.isEmpty() && copied < copy.length) {
        const QByteArray chunk = source.read(qMin(kChunkBytes, copy.length - copied));
        if (cancelled.load())
            error = QStringLiteral("cancelled at shutdown");
        else if (chunk.isEmpty())
            error = QStringLiteral("%1 ended after %2 of %3 bytes").arg(copy.source).arg(copied).arg(copy.length);
        else if (partial.write(chunk) != chunk.size())
            error = QStringLiteral("cannot write %1: %2").arg(partial.fileName(), partial.errorString());
        copied += chunk.size();
    }
    if (error.isEmpty() && (!partial.flush() || ::fsync(partial.handle()) != 0))
        error = QStringLiteral("cannot write %1: %2").arg(partial.fileName(), partial.errorString());
    partial.close();
    if (error.isEmpty() && !QFile::rename(partial.fileName(), copy.target))
        error = QStringLiteral("cannot rename %1 into place").arg(partial.fileName());
    if (!error.isEmpty())
        QFile::remove(partial.fileName());
    return error;
}

} // namespace MediaV2
