#pragma once

#include <QList>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QString>

namespace MediaV2 {

// The stream cache's table of entries in one SQLite file: per cache key the name of its stream
// file, its size and when it was last used. Besides the wall-clock time of the last use, which
// has only seconds, every put and touch takes the next number of a use counter: least recently
// used order needs to tell apart uses within one second and must not follow the clock when the
// vehicle's clock is set back. WAL journal with synchronous=NORMAL: a lookup's
// access-time update costs no fsync, and a power cut loses at most the last few updates, never
// the file's consistency.
//
// Thread: whichever thread opened it, and only that one (a QtSql connection belongs to its
// thread); the stream cache keeps it on its own thread. Owns its connection. Failure: every
// call returns false (or an empty result) and keeps the reason for lastError(); a file that
// is corrupt or not a database at all is moved aside by open() and replaced by an empty one.
class StreamCacheDatabase
{
public:
    struct Entry
    {
        QString key;
        QString file;          // name inside the stream folder
        qint64 size = 0;       // bytes
        qint64 lastAccess = 0; // seconds since the epoch
    };
    struct Totals
    {
        qint64 count = 0;
        qint64 bytes = 0;
    };

    StreamCacheDatabase();
    ~StreamCacheDatabase();
    StreamCacheDatabase(const StreamCacheDatabase&) = delete;
    StreamCacheDatabase& operator=(const StreamCacheDatabase&) = delete;

    // Opens or creates the file and its table. A damaged file is renamed to
    // "<path>.corrupt-<UTC time>" (with its journal files) and an empty one created; *setAside
    // then names where it went. False only when no usable database could be had (read-only or
    // full disk, a path that cannot be a file).
    bool open(const QString& path, QString* setAside = nullptr);
    void close();
    bool isOpen() const;

    bool find(const QString& key, Entry* entry);
    // Records a use now (lastAccess in seconds since the epoch).
    bool touch(const QString& key, qint64 lastAccess);
    // Inserts or replaces the entry of its key; *replaced receives the older entry, if any
    // (its key stays empty when there was none).
    bool put(const Entry& entry, Entry* replaced);
    bool remove(const QString& key);
    // Up to `limit` entries, least recently used first.
    QList<Entry> leastRecentlyUsed(int limit);
    QList<Entry> all();

    // Groups many writes into one commit (bulk fills, pruning passes); false when the
    // connection refuses. A commit that fails rolls the batch back.
    bool beginBatch();
    bool commitBatch();

    QString lastError() const { return mLastError; }

private:
    bool openFile(const QString& path);
    bool prepare();
    bool checkIntegrity();
    bool loadUseCounter();
    bool exec(const QString& statement);
    bool execPrepared(QSqlQuery& query);
    bool lastErrorIsCorruption() const;
    QString setFileAside(const QString& path);
    QList<Entry> entries(QSqlQuery& query);

    QString mConnectionName;
    QSqlDatabase mDb;
    QSqlQuery mFindQuery;
    QSqlQuery mTouchQuery;
    QSqlQuery mRemoveQuery;
    qint64 mLastUse = 0;   // the use counter's newest number
    QString mLastError;
    int mLastErrorCode = 0;   // SQLite's primary result code of the last failure
};

} // namespace MediaV2
