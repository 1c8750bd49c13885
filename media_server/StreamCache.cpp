#include "media_server/StreamCache.h"

#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/config/ConfigUnsignedIntValue.h"
#include "platform/core/Finalizer.h"
#include "media_server/StreamCacheLocation.h"
#include "platform/io/FileUtils.h"
#include "platform/io/StorageUtils.h"
#include "platform/log/LogLine.h"
#include "platform/log/Logger.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QPointer>
#include <QSet>
#include <QThread>
#include <QTimer>

// The persistent cache of finished downloads. The cache class is built on these settings; they
// live here, beside the code that reads them.

namespace {

// Disk space the cache may use, in MB: a few hundred items of typical length.
ConfigIntValue sMaxDiskCacheSize("mediaserver/maxDiskCacheSize", 2000,
    "disk space the stream cache may use (MB)", ConfigRange<int>{0});
// Number of items the cache may hold, whatever their size.
ConfigUnsignedIntValue sMaxDiskCacheCount("mediaserver/maxDiskCacheCount", 1000, "number of items the stream cache may hold");
// Copies into the cache at once (downloads on another file system than the cache): each one
// streams a whole file, and more than a few would only compete for the same disk.
ConfigIntValue sMaxAsyncLoad("mediaserver/stream_cache_max_async_load", 3,
    "copies into the stream cache at once", ConfigRange<int>{1});
// One line per lookup, store and removal, for following what the cache decides.
ConfigBoolValue sDebugLog("mediaserver/stream_cache_debug_log", false, "one log line per stream cache lookup, store and removal");
// Seconds after which an entry expires: 30 days.
ConfigUnsignedIntValue sItemExpiration("mediaserver/stream_cache_item_expiration", 2592000,
    "age after which a stream cache entry expires (s)");
// Free disk space (MB) the cache always leaves for the rest of the system.
ConfigIntValue sRequiredFreeDiskSpace("mediaserver/stream_cache_required_free_disk_space_mb", 300,
    "free disk space the stream cache always leaves (MB)", ConfigRange<int>{0});
// Pretends the disk has this much free space (MB) to test pruning; -1 reads the real figure.
ConfigIntValue sDebugFreeDiskSpace("mediaserver/stream_cache_debug_free_disk_space_mb", -1,
    "pretend the disk has this much free space, to test pruning; -1: the real figure (MB)", ConfigRange<int>{-1});
// How often the cache prunes itself (ms).
ConfigIntValue sPruneTimerMs("mediaserver/stream_cache_prune_timer_ms", 60000,
    "how often the stream cache prunes itself; 0: only at start and after each store (ms)", ConfigRange<int>{0});

constexpr qint64 kBytesPerMb = 1024 * 1024;
// Entries fetched per step while pruning: a pass seldom removes more than a few.
constexpr int kPruneBatch = 32;

qint64 nowSeconds()
{
    return QDateTime::currentSecsSinceEpoch();
}

bool debugLog()
{
    return sDebugLog.value();
}

} // namespace

namespace MediaV2 {

StreamCache::StreamCache(int maxSize, unsigned maxCount)
    : mMaxBytes(qMax(0, maxSize) * kBytesPerMb)
    , mMaxCount(maxCount)
{
}

StreamCache::~StreamCache()
{
    close();
}

int StreamCache::configuredMaxSize()
{
    return sMaxDiskCacheSize.value();
}

unsigned StreamCache::configuredMaxCount()
{
    return sMaxDiskCacheCount.value();
}

void StreamCache::init()
{
    LOG_ASSERT(QThread::currentThread() != QCoreApplication::instance()->thread(),
               QStringLiteral("StreamCache::init must run on the stream cache thread, not the main thread"));
    if (mUsable || !openStorage())
        return;
    reconcile();
    mCopier = new StreamCacheCopier(sMaxAsyncLoad.value(), this);
    connect(mCopier, &StreamCacheCopier::copied, this, &StreamCache::onCopied);
    registerFinalizer();
    startPruneTimer();
    LOG_INFO << "stream cache ready: " << mTotals.count << " entries, " << mTotals.bytes / kBytesPerMb << " MB in "
             << mFolder.path();
    prune();
}

bool StreamCache::openStorage()
{
    const QString dbFile = StreamCacheLocation::databaseFile();
    mFolder = StreamCacheFolder(StreamCacheLocation::streamFolder());
    QString error;
    if (!mFolder.create(&error) || !StorageUtils::ensureFolder(QFileInfo(dbFile).absolutePath())) {
        setUnusable(error.isEmpty() ? QStringLiteral("cannot create the folder of %1").arg(dbFile) : error);
        return false;
    }
    QString setAside;
    if (!mDb.open(dbFile, &setAside)) {
        setUnusable(QStringLiteral("cannot open %1: %2").arg(dbFile, mDb.lastError()));
        return false;
    }
    if (!setAside.isEmpty())
        LOG_WARN << "stream cache database " << dbFile << " was damaged; moved it to " << setAside
                 << " and started an empty cache";
    mUsable = true;
    return true;
}

// Makes the table and the folder agree after a crash or a hand-edited folder: files that no
// entry names go (copies cut short included), entries whose file is gone are dropped.
void StreamCache::reconcile()
{
    const QStringList onDisk = mFolder.names();
    QSet<QString> unclaimed(onDisk.begin(), onDisk.end());
    mTotals = {};
    int dropped = 0;
    mDb.beginBatch();
    for (const StreamCacheDatabase::Entry& entry : mDb.all()) {
        if (unclaimed.remove(entry.file)) {
            ++mTotals.count;
            mTotals.bytes += entry.size;
        } else if (mDb.remove(entry.key)) {
            ++dropped;
        }
    }
    mDb.commitBatch();
    int orphans = 0;
    for (const QString& name : unclaimed)
        orphans += mFolder.remove(name) ? 1 : 0;
    if (dropped > 0 || orphans > 0)
        LOG_INFO << "stream cache reconciled: removed " << orphans << " files without an entry, dropped " << dropped
                 << " entries without a file";
}

// The finaliser runs on the main thread after the event loop, newest first, so before the
// finaliser that stops this object's thread: the close runs on the cache thread, which still
// serves its queue.
void StreamCache::registerFinalizer()
{
    QPointer<StreamCache> self(this);
    Finalizer::instance()->add(QStringLiteral("close the stream cache"), [self] {
        if (!self)
            return;
        QThread* thread = self->thread();
        if (thread == QThread::currentThread())
            self->close();
        else if (thread && thread->isRunning())
            QMetaObject::invokeMethod(self, "close", Qt::BlockingQueuedConnection);
    });
}

void StreamCache::startPruneTimer()
{
    mPruneTimer = new QTimer(this);
    connect(mPruneTimer, &QTimer::timeout, this, &StreamCache::prune);
    if (sPruneTimerMs.value() > 0)
        mPruneTimer->start(sPruneTimerMs.value());
}

void StreamCache::setUnusable(const QString& reason)
{
    mUsable = false;
    LOG_ERROR << "stream cache unavailable (" << reason << "); every lookup answers \"not cached\" and nothing is kept";
}

void StreamCache::close()
{
    if (mPruneTimer)
        mPruneTimer->stop();
    if (mCopier)
        mCopier->cancelAll();
    if (mDb.isOpen())
        LOG_INFO << "stream cache closed";
    mDb.close();
    mUsable = false;
}

void StreamCache::findStream(QString streamID)
{
    StreamCacheDatabase::Entry entry;
    if (!mUsable || streamID.isEmpty() || !mDb.find(streamID, &entry)) {
        if (debugLog())
            LOG_INFO << "lookup " << streamID << ": not cached";
        answer(false, QString(), 0);
        return;
    }
    if (mFolder.sizeOf(entry.file) != entry.size) {
        removeEntry(entry, "its file vanished or changed size");
        answer(false, QString(), 0);
        return;
    }
    if (!mDb.touch(streamID, nowSeconds()))
        reportWriteFailure(QStringLiteral("the last use of %1 is not recorded").arg(streamID));
    if (debugLog())
        LOG_INFO << "lookup " << streamID << ": cached in " << entry.file << ", last used " << entry.lastAccess;
    answer(true, mFolder.filePath(entry.file), entry.lastAccess);
}

void StreamCache::answer(bool inCache, const QString& file, qint64 timeSeconds)
{
    emit streamFileFound(inCache, file, timeSeconds);
}

void StreamCache::store(QString cachekey, QByteArray data)
{
    if (!mUsable)
        return;
    Download download;
    const QString refusal = refusalOf(cachekey, data, &download);
    if (!refusal.isEmpty()) {
        LOG_WARN << "not keeping " << cachekey << " in the stream cache: " << refusal;
        return;
    }
    const quint64 serial = ++mSerial;
    const QString name = mFolder.newName(cachekey);
    QString error;
    if (linkFile(download.file, mFolder.filePath(name), &error))
        record(cachekey, name, download.length, serial);
    else
        storeCopy(cachekey, download, serial, name);
}

// Why the described download cannot be kept; empty when it can.
QString StreamCache::refusalOf(const QString& key, const QByteArray& data, Download* download) const
{
    if (key.isEmpty())
        return QStringLiteral("the item has no cache key");
    if (data.isEmpty())
        return QStringLiteral("the download did not finish");
    const QJsonObject description = QJsonDocument::fromJson(data).object();
    download->file = description.value(QStringLiteral("file")).toString();
    download->length = description.value(QStringLiteral("length")).toVariant().toLongLong();
    if (download->file.isEmpty() || download->length <= 0)
        return QStringLiteral("the description %1 names no file and length").arg(QString::fromUtf8(data.left(200)));
    const qint64 size = FileUtils::fileSize(download->file);
    if (size < 0)
        return QStringLiteral("%1 does not exist").arg(download->file);
    if (size != download->length)
        return QStringLiteral("%1 has %2 bytes, not the %3 downloaded").arg(download->file).arg(size).arg(download->length);
    if (download->length > mMaxBytes)
        return QStringLiteral("%1 bytes is more than the whole cache may hold").arg(download->length);
    return QString();
}

bool StreamCache::linkFile(const QString& from, const QString& to, QString* error)
{
    return FileUtils::hardLink(from, to, error);
}

void StreamCache::storeCopy(const QString& key, const Download& download, quint64 serial, const QString& name)
{
    if (!pruneLeastRecentlyUsed(download.length)) {
        LOG_WARN << "not keeping " << key << " in the stream cache: no room for a copy of " << download.length
                 << " bytes within the limits and the free disk space";
        return;
    }
    ++mInFlight[key].copies;
    mCopier->start({serial, key, download.file, mFolder.filePath(name), download.length, QString()});
}

void StreamCache::onCopied(const StreamCacheCopier::Copy& copy)
{
    if (copy.error.isEmpty() && mUsable)
        record(copy.key, QFileInfo(copy.target).fileName(), copy.length, copy.serial);
    else if (!copy.error.isEmpty())
        LOG_WARN << "not keeping " << copy.key << " in the stream cache: " << copy.error;
    else
        QFile::remove(copy.target);
    InFlight& flight = mInFlight[copy.key];
    if (--flight.copies <= 0)
        mInFlight.remove(copy.key);
}

// Enters a placed file under its key, replacing the key's older entry, unless a newer store
// of the key was entered while this one was copied.
void StreamCache::record(const QString& key, const QString& name, qint64 size, quint64 serial)
{
    if (isSuperseded(key, serial)) {
        mFolder.remove(name);
        if (debugLog())
            LOG_INFO << "dropped a copy of " << key << ": superseded by a newer store";
        return;
    }
    StreamCacheDatabase::Entry replaced;
    if (!mDb.put({key, name, size, nowSeconds()}, &replaced)) {
        reportWriteFailure(QStringLiteral("%1 is not kept").arg(key));
        mFolder.remove(name);
        return;
    }
    mWriteFailureReported = false;
    noteRecorded(key, serial);
    ++mTotals.count;
    mTotals.bytes += size;
    if (!replaced.key.isEmpty())
        forgetReplaced(replaced);
    if (debugLog())
        LOG_INFO << "stored " << key << " as " << name << " (" << size << " bytes)";
    prune();
}

bool StreamCache::isSuperseded(const QString& key, quint64 serial) const
{
    const auto flight = mInFlight.constFind(key);
    return flight != mInFlight.constEnd() && flight->newestRecorded > serial;
}

void StreamCache::noteRecorded(const QString& key, quint64 serial)
{
    const auto flight = mInFlight.find(key);
    if (flight != mInFlight.end())
        flight->newestRecorded = serial;
}

// The replaced entry's name goes; its bytes stay for a player that still has the file open.
void StreamCache::forgetReplaced(const StreamCacheDatabase::Entry& replaced)
{
    --mTotals.count;
    mTotals.bytes -= replaced.size;
    mFolder.remove(replaced.file);
}

bool StreamCache::removeEntry(const StreamCacheDatabase::Entry& entry, const char* why)
{
    if (!mDb.remove(entry.key)) {
        reportWriteFailure(QStringLiteral("%1 is not removed").arg(entry.key));
        return false;
    }
    mFolder.remove(entry.file);
    --mTotals.count;
    mTotals.bytes -= entry.size;
    if (debugLog())
        LOG_INFO << "removed " << entry.key << " (" << why << ")";
    return true;
}

void StreamCache::prune()
{
    if (!mUsable)
        return;
    // One commit for the whole pass: removing a thousand entries costs one journal sync.
    mDb.beginBatch();
    expire(nowSeconds());
    pruneLeastRecentlyUsed(0);
    mDb.commitBatch();
}

// Idle entries are the least recently used ones, so the walk stops at the first entry used
// recently enough.
void StreamCache::expire(qint64 now)
{
    const qint64 cutoff = now - qint64(sItemExpiration.value());
    for (;;) {
        const QList<StreamCacheDatabase::Entry> oldest = mDb.leastRecentlyUsed(kPruneBatch);
        for (const StreamCacheDatabase::Entry& entry : oldest)
            if (entry.lastAccess >= cutoff || !removeEntry(entry, "expired"))
                return;
        if (oldest.size() < kPruneBatch)
            return;
    }
}

// Removes least recently used entries until the cache, with `incomingBytes` more, is within
// its limits; false when even an empty cache would not be.
bool StreamCache::pruneLeastRecentlyUsed(qint64 incomingBytes)
{
    const StreamCacheLimits limits = this->limits();
    StreamCacheLimits::Usage now = usage(incomingBytes);
    while (limits.exceededBy(now)) {
        const QList<StreamCacheDatabase::Entry> oldest = mDb.leastRecentlyUsed(kPruneBatch);
        if (oldest.isEmpty())
            return false;
        for (const StreamCacheDatabase::Entry& entry : oldest) {
            if (!limits.exceededBy(now))
                break;
            if (!removeEntry(entry, "least recently used beyond the limits"))
                return false;
            now = StreamCacheLimits::without(now, entry.size);
        }
    }
    return true;
}

StreamCacheLimits StreamCache::limits() const
{
    return {mMaxCount, mMaxBytes, qint64(sRequiredFreeDiskSpace.value()) * kBytesPerMb};
}

StreamCacheLimits::Usage StreamCache::usage(qint64 incomingBytes) const
{
    const qint64 debugFree = sDebugFreeDiskSpace.value();
    const qint64 freeBytes = debugFree >= 0 ? debugFree * kBytesPerMb : mFolder.freeBytes();
    return {mTotals.count + (incomingBytes > 0 ? 1 : 0), mTotals.bytes + incomingBytes,
            freeBytes < 0 ? -1 : freeBytes - incomingBytes};
}

void StreamCache::reportWriteFailure(const QString& what)
{
    if (mWriteFailureReported)
        return;
    mWriteFailureReported = true;
    LOG_ERROR << "stream cache cannot write " << StreamCacheLocation::databaseFile() << " (" << mDb.lastError() << "): " << what
              << "; further write failures are not logged until a write succeeds";
}

} // namespace MediaV2
