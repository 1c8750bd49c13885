#pragma once

#include "media_server/StreamCacheCopier.h"
#include "media_server/StreamCacheDatabase.h"
#include "media_server/StreamCacheFolder.h"
#include "media_server/StreamCacheLimits.h"

#include <QByteArray>
#include <QHash>
#include <QObject>
#include <QString>

class QTimer;

namespace MediaV2 {

// The persistent cache of finished downloads: whatever downloaded completely once plays again
// from disk, across restarts and power cuts, without filling the disk the vehicle needs.
//
// A SQLite table (StreamCacheDatabase) maps each cache key to one complete file in the stream
// folder (StreamCacheFolder), with its size and last use; StreamCacheLocation says where the
// two are.
//
// Lookups: findStream() answers every call exactly once, in call order, with
// streamFileFound(inCache, file, timeSeconds): the path of the complete data and the entry's
// previous last use (seconds since the epoch); the last use is then set to now. A file that
// vanished or changed size behind the cache's back answers "not cached" and its entry goes.
// A miss answers (false, "", 0).
//
// Stores: store() takes the buffer's description of a finished download, the JSON object
// {"file": <data file>, "length": <complete size in bytes>}. The file is kept only when it has
// exactly that length; an empty description, a missing file or another size is logged once and
// not kept, so a partial download is never answered as a hit. The cache's own name for the
// file is a hard link (no bytes copied); where the file system refuses one, a copy made by
// StreamCacheCopier off this thread, so a lookup never waits behind a copy. A newer store of a
// key replaces the older entry, even when the older one's copy finishes later.
//
// Nothing ever writes to a stored file. A hard link shares its bytes with the buffer's data
// file, so the guarantee needs both sides: the cache opens its files only for reading and only
// ever unlinks them (a replaced or pruned entry's name is removed, never its bytes rewritten;
// a player still reading keeps them until it closes); the buffer describes a file to the cache
// only once every byte is on disk and its writer is gone, and never opens that data file for
// writing again: a later download of the same key starts a new file (unlink, then create), and
// its trimming and truncating happen before the hand-over. A cache copy is written only under
// its ".part" name, before any entry names it.
//
// Keeping: least recently used entries go first when the count passes maxCount, the total
// passes maxSize MB, or the disk's free space falls below
// "mediaserver/stream_cache_required_free_disk_space_mb"; entries idle longer than
// "mediaserver/stream_cache_item_expiration" seconds expire. Pruning runs after every store
// and every "mediaserver/stream_cache_prune_timer_ms".
//
// Crashes: a file is placed before its entry is recorded and an entry removed before its
// file, so a crash leaves at worst a file without an entry or an entry without a file; init()
// removes the one and drops the other. A damaged database is moved aside and rebuilt empty.
//
// Thread: lives on "StreamCacheThread" (moved there by its owner) and is reached only by
// queued invocations by name; its signal reaches the owner queued. init() must run there,
// never on the main thread. Owns the database connection, the prune timer and the copier.
// No locks: everything runs on the one thread. A finaliser closes the database and cancels
// copies at exit, before the thread stops.
//
// Failure: never fatal, one log line per kind of trouble. A database that cannot be opened (a
// read-only disk, a path that cannot be a folder) turns every lookup into "not cached" and
// every store into nothing kept. One that can be read but not written (a full disk) keeps
// answering what it holds, and keeps no new entry until a write succeeds again.
class StreamCache : public QObject
{
    Q_OBJECT
public:
    // maxSize in MB (1 MB = 1 MiB, as the free-space figures), maxCount in entries.
    StreamCache(int maxSize, unsigned maxCount);
    ~StreamCache() override;

    // The constructor's arguments as configured ("mediaserver/maxDiskCacheSize",
    // "mediaserver/maxDiskCacheCount").
    static int configuredMaxSize();
    static unsigned configuredMaxCount();
    Q_INVOKABLE void init();
    Q_INVOKABLE void findStream(QString streamID);
    Q_INVOKABLE void store(QString cachekey, QByteArray data);
    Q_INVOKABLE void prune();
    // Cancels copies and closes the database; later calls answer "not cached".
    Q_INVOKABLE void close();

signals:
    void streamFileFound(bool inCache, QString file, qint64 timeSeconds);

protected:
    // Gives the file its name in the stream folder without copying; the copy path takes over
    // when this fails. Virtual so that a test can make linking fail.
    virtual bool linkFile(const QString& from, const QString& to, QString* error);

private:
    struct Download
    {
        QString file;
        qint64 length = 0;
    };
    struct InFlight
    {
        int copies = 0;
        quint64 newestRecorded = 0;
    };

    bool openStorage();
    void reconcile();
    void registerFinalizer();
    void startPruneTimer();
    void setUnusable(const QString& reason);
    QString refusalOf(const QString& key, const QByteArray& data, Download* download) const;
    void storeCopy(const QString& key, const Download& download, quint64 serial, const QString& name);
    void onCopied(const MediaV2::StreamCacheCopier::Copy& copy);
    void record(const QString& key, const QString& name, qint64 size, quint64 serial);
    bool isSuperseded(const QString& key, quint64 serial) const;
    void noteRecorded(const QString& key, quint64 serial);
    void forgetReplaced(const StreamCacheDatabase::Entry& replaced);
    bool removeEntry(const StreamCacheDatabase::Entry& entry, const char* why);
    void expire(qint64 now);
    bool pruneLeastRecentlyUsed(qint64 incomingBytes);
    StreamCacheLimits limits() const;
    StreamCacheLimits::Usage usage(qint64 incomingBytes) const;
    void reportWriteFailure(const QString& what);
    void answer(bool inCache, const QString& file, qint64 timeSeconds);

    const qint64 mMaxBytes;
    const qint64 mMaxCount;
    StreamCacheDatabase mDb;
    StreamCacheFolder mFolder;
    StreamCacheCopier* mCopier = nullptr;   // child; created by init()
    QTimer* mPruneTimer = nullptr;          // child; created by init()
    StreamCacheDatabase::Totals mTotals;    // kept in step with every put and remove
    QHash<QString, InFlight> mInFlight;     // keys with copies under way
    quint64 mSerial = 0;                    // of the stores, newest highest
    bool mUsable = false;
    bool mWriteFailureReported = false;
};

} // namespace MediaV2
