#include "media_server/StreamCacheDatabase.h"

#include <QDateTime>
#include <QFile>
#include <QSqlError>
#include <QVariant>

namespace MediaV2 {

namespace {

// SQLite's primary result codes for a damaged file and for a file that is no database.
constexpr int kSqliteCorrupt = 11;
constexpr int kSqliteNotADatabase = 26;
// Our own code for a database whose table has another shape: some other program's file.
constexpr int kNotOurTable = -2;

// A transaction that another connection holds (an inspection with the sqlite3 shell) is waited
// for this long; then the call fails instead of hanging the cache thread.
constexpr int kBusyTimeoutMs = 1000;

const char* const kSchema[] = {
    "CREATE TABLE IF NOT EXISTS streams (cachekey TEXT PRIMARY KEY NOT NULL, file TEXT NOT NULL,"
    " size INTEGER NOT NULL, last_access INTEGER NOT NULL, last_use INTEGER NOT NULL)",
    // Pruning walks the entries from the least recently used.
    "CREATE INDEX IF NOT EXISTS streams_by_use ON streams (last_use)",
};

const QString kColumns = QStringLiteral("SELECT cachekey, file, size, last_access FROM streams");

} // namespace

StreamCacheDatabase::StreamCacheDatabase()
    : mConnectionName(QStringLiteral("stream-cache-%1").arg(quintptr(this), 0, 16))
{
}

StreamCacheDatabase::~StreamCacheDatabase()
{
    close();
}

bool StreamCacheDatabase::open(const QString& path, QString* setAside)
{
    if (openFile(path))
        return true;
    if (!lastErrorIsCorruption())
        return false;
    const QString reason = mLastError;
    close();
    const QString aside = setFileAside(path);
    if (aside.isEmpty()) {
        mLastError = QStringLiteral("%1, and it cannot be moved aside").arg(reason);
        return false;
    }
    if (setAside)
        *setAside = aside;
    return openFile(path);
}

bool StreamCacheDatabase::openFile(const QString& path)
{
    mDb = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), mConnectionName);
    mDb.setDatabaseName(path);
    mDb.setConnectOptions(QStringLiteral("QSQLITE_BUSY_TIMEOUT=%1").arg(kBusyTimeoutMs));
    if (!mDb.open()) {
        mLastError = mDb.lastError().text();
        mLastErrorCode = mDb.lastError().nativeErrorCode().toInt();
        return false;
    }
    if (!exec(QStringLiteral("PRAGMA journal_mode=WAL")) || !exec(QStringLiteral("PRAGMA synchronous=NORMAL")))
        return false;
    if (!checkIntegrity())
        return false;
    for (const char* statement : kSchema)
        if (!exec(QString::fromLatin1(statement)))
            return false;
    return prepare() && loadUseCounter();
}

// A damaged page can sit where no query of ours would read it for weeks; finding it now lets
// open() start afresh instead of failing a lookup later.
bool StreamCacheDatabase::checkIntegrity()
{
    QSqlQuery check(mDb);
    if (check.exec(QStringLiteral("PRAGMA quick_check")) && check.next() && check.value(0).toString() == QLatin1String("ok"))
        return true;
    mLastError = check.lastError().isValid() ? check.lastError().text() : QStringLiteral("integrity check failed");
    mLastErrorCode = check.lastError().isValid() ? check.lastError().nativeErrorCode().toInt() : kSqliteCorrupt;
    return false;
}

bool StreamCacheDatabase::loadUseCounter()
{
    QSqlQuery query(mDb);
    if (!query.exec(QStringLiteral("SELECT coalesce(max(last_use), 0) FROM streams")) || !query.next()) {
        mLastError = query.lastError().text();
        return false;
    }
    mLastUse = query.value(0).toLongLong();
    return true;
}

bool StreamCacheDatabase::prepare()
{
    mFindQuery = QSqlQuery(mDb);
    mTouchQuery = QSqlQuery(mDb);
    mRemoveQuery = QSqlQuery(mDb);
    if (mFindQuery.prepare(kColumns + QStringLiteral(" WHERE cachekey = ?"))
        && mTouchQuery.prepare(QStringLiteral("UPDATE streams SET last_access = ?, last_use = ? WHERE cachekey = ?"))
        && mRemoveQuery.prepare(QStringLiteral("DELETE FROM streams WHERE cachekey = ?")))
        return true;
    mLastError = QStringLiteral("the file holds another program's table: %1").arg(mDb.lastError().text());
    mLastErrorCode = kNotOurTable;
    return false;
}

void StreamCacheDatabase::close()
{
    mFindQuery = QSqlQuery();
    mTouchQuery = QSqlQuery();
    mRemoveQuery = QSqlQuery();
    if (mDb.isValid())
        mDb.close();
    mDb = QSqlDatabase();
    if (QSqlDatabase::contains(mConnectionName))
        QSqlDatabase::removeDatabase(mConnectionName);
}

bool StreamCacheDatabase::isOpen() const
{
    return mDb.isValid() && mDb.isOpen();
}

bool StreamCacheDatabase::find(const QString& key, Entry* entry)
{
    mFindQuery.addBindValue(key);
    if (!execPrepared(mFindQuery))
        return false;
    const QList<Entry> found = entries(mFindQuery);
    if (found.isEmpty())
        return false;
    *entry = found.first();
    return true;
}

bool StreamCacheDatabase::touch(const QString& key, qint64 lastAccess)
{
    mTouchQuery.addBindValue(lastAccess);
    mTouchQuery.addBindValue(++mLastUse);
    mTouchQuery.addBindValue(key);
    return execPrepared(mTouchQuery);
}

bool StreamCacheDatabase::put(const Entry& entry, Entry* replaced)
{
    *replaced = Entry();
    find(entry.key, replaced);
    QSqlQuery query(mDb);
    query.prepare(QStringLiteral("INSERT OR REPLACE INTO streams (cachekey, file, size, last_access, last_use) VALUES (?, ?, ?, ?, ?)"));
    query.addBindValue(entry.key);
    query.addBindValue(entry.file);
    query.addBindValue(entry.size);
    query.addBindValue(entry.lastAccess);
    query.addBindValue(++mLastUse);
    return execPrepared(query);
}

bool StreamCacheDatabase::remove(const QString& key)
{
    mRemoveQuery.addBindValue(key);
    return execPrepared(mRemoveQuery);
}

QList<StreamCacheDatabase::Entry> StreamCacheDatabase::leastRecentlyUsed(int limit)
{
    QSqlQuery query(mDb);
    query.prepare(kColumns + QStringLiteral(" ORDER BY last_use LIMIT ?"));
    query.addBindValue(limit);
    return execPrepared(query) ? entries(query) : QList<Entry>();
}

QList<StreamCacheDatabase::Entry> StreamCacheDatabase::all()
{
    QSqlQuery query(mDb);
    query.setForwardOnly(true);
    return query.exec(kColumns) ? entries(query) : QList<Entry>();
}

bool StreamCacheDatabase::beginBatch()
{
    return mDb.transaction();
}

bool StreamCacheDatabase::commitBatch()
{
    if (mDb.commit())
        return true;
    mLastError = mDb.lastError().text();
    mDb.rollback();
    return false;
}

bool StreamCacheDatabase::exec(const QString& statement)
{
    QSqlQuery query(mDb);
    if (query.exec(statement))
        return true;
    mLastError = query.lastError().text();
    mLastErrorCode = query.lastError().nativeErrorCode().toInt();
    return false;
}

bool StreamCacheDatabase::execPrepared(QSqlQuery& query)
{
    if (query.exec())
        return true;
    mLastError = query.lastError().text();
    mLastErrorCode = query.lastError().nativeErrorCode().toInt();
    return false;
}

bool StreamCacheDatabase::lastErrorIsCorruption() const
{
    const int primary = mLastErrorCode & 0xff;
    return mLastErrorCode == kNotOurTable || primary == kSqliteCorrupt || primary == kSqliteNotADatabase;
}

// Renames the file and its journal files to one timestamped name, so the damage can be looked
// at later; an empty string when the main file could not be moved.
QString StreamCacheDatabase::setFileAside(const QString& path)
{
    const QString aside = path + QStringLiteral(".corrupt-")
        + QDateTime::currentDateTimeUtc().toString(QStringLiteral("yyyyMMdd'T'HHmmss'Z'"));
    QFile::remove(aside);
    if (!QFile::rename(path, aside))
        return QString();
    for (const char* journal : {"-wal", "-shm"}) {
        const QString from = path + QLatin1String(journal);
        QFile::remove(aside + QLatin1String(journal));
        if (QFile::exists(from) && !QFile::rename(from, aside + QLatin1String(journal)))
            QFile::remove(from);
    }
    return aside;
}

QList<StreamCacheDatabase::Entry> StreamCacheDatabase::entries(QSqlQuery& query)
{
    QList<Entry> list;
    while (query.next())
        list.append({query.value(0).toString(), query.value(1).toString(), query.value(2).toLongLong(),
                     query.value(3).toLongLong()});
    query.finish();
    return list;
}

} // namespace MediaV2
