// The stream cache on its own thread, as in production, over real SQLite files and stream
// folders in temporary directories: what lookups answer, what stores keep and refuse, how the
// cache prunes, and how it survives crashes, damaged databases and unusable disks.

#include "media_server/StreamCache.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/Finalizer.h"
#include "platform/core/SimpleTThread.h"
#include "tests/support/TestConfig.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SmallFileSystem.h"
#include "tests/support/TestFiles.h"

#include <QDateTime>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QSqlDatabase>
#include <QSqlQuery>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/stat.h>

using MediaV2::StreamCache;

namespace {

constexpr qint64 kMiB = 1024 * 1024;

ino_t inodeOf(const QString& path)
{
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? info.st_ino : 0;
}

QByteArray description(const QString& file, qint64 length)
{
    return QJsonDocument(QJsonObject{{"file", file}, {"length", length}}).toJson(QJsonDocument::Compact);
}

// A cache whose hard links fail for sources named "*copy*", so the copy path can be chosen
// per store.
class LinkRefusingCache : public StreamCache
{
public:
    using StreamCache::StreamCache;

protected:
    bool linkFile(const QString& from, const QString& to, QString* error) override
    {
        return !from.contains(QLatin1String("copy")) && StreamCache::linkFile(from, to, error);
    }
};

struct Answer
{
    bool inCache = false;
    QString file;
    qint64 timeSeconds = -1;
};

// One cache on its thread "StreamCacheThread", reached by queued invocations only; lookups are
// answered through a queued connection to this (main) thread.
class CacheRun
{
public:
    explicit CacheRun(int maxMb = 100, unsigned maxCount = 100)
        : cache(new LinkRefusingCache(maxMb, maxCount))
        , thread(QStringLiteral("StreamCacheThread"))
        , answers(cache, &StreamCache::streamFileFound)
    {
        cache->moveToThread(&thread);
        thread.start();
        QMetaObject::invokeMethod(cache, "init", Qt::QueuedConnection);
    }
    ~CacheRun()
    {
        QMetaObject::invokeMethod(cache, "close", Qt::BlockingQueuedConnection);
        cache->deleteLater();
        thread.stop();
    }

    Answer find(const QString& key)
    {
        const int before = answers.size();
        QMetaObject::invokeMethod(cache, "findStream", Qt::QueuedConnection, Q_ARG(QString, key));
        if (!QTest::qWaitFor([&] { return answers.size() > before; }, 5000))
            return {false, QStringLiteral("no answer"), -1};
        const QList<QVariant> a = answers.at(before);
        return {a.at(0).toBool(), a.at(1).toString(), a.at(2).toLongLong()};
    }
    void store(const QString& key, const QByteArray& data)
    {
        QMetaObject::invokeMethod(cache, "store", Qt::QueuedConnection, Q_ARG(QString, key), Q_ARG(QByteArray, data));
    }
    // Stores and waits until the key answers with these bytes (a copy finishes later).
    bool storeAndWait(const QString& key, const QString& file)
    {
        store(key, description(file, QFileInfo(file).size()));
        const QByteArray bytes = fileContents(file);
        return QTest::qWaitFor([&] { return fileContents(find(key).file) == bytes; }, 5000);
    }
    void prune() { QMetaObject::invokeMethod(cache, "prune", Qt::QueuedConnection); }

    StreamCache* cache;
    SimpleTThread thread;
    QSignalSpy answers;
};

} // namespace

class TestStreamCache : public QObject
{
    Q_OBJECT

    QTemporaryDir mDir;
    LogCapture mLog;

    QString dbFile() const { return mDir.filePath(QStringLiteral("cache/stream_cache.db")); }
    QString streams() const { return mDir.filePath(QStringLiteral("cache/streams")); }
    QStringList streamFiles() const { return QDir(streams()).entryList(QDir::Files); }

    // A finished download of `bytes` bytes whose content names it.
    QString download(const QString& name, qint64 bytes = 4096)
    {
        QDir().mkpath(mDir.filePath(QStringLiteral("downloads")));
        const QString path = mDir.filePath(QStringLiteral("downloads/") + name);
        QFile file(path);
        file.open(QIODevice::WriteOnly | QIODevice::Truncate);
        QByteArray content = name.toUtf8().repeated(int(bytes / name.size() + 1));
        content.truncate(int(bytes));
        file.write(content);
        return path;
    }

    // Runs one statement on the cache's database through a connection of the test's own.
    QVariant sql(const QString& statement)
    {
        QVariant result;
        {
            QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("probe"));
            db.setDatabaseName(dbFile());
            QSqlQuery query(db);
            if (db.open() && query.exec(statement) && query.next())
                result = query.value(0);
        }
        QSqlDatabase::removeDatabase(QStringLiteral("probe"));
        return result;
    }

private slots:
    void init()
    {
        QVERIFY(mDir.isValid());
        QDir(mDir.path()).removeRecursively();
        QDir().mkpath(mDir.path());
        ConfigStore::instance()->clearOverrides();
        setConfig(QStringLiteral("mediaserver/stream_cache_db_file"), dbFile());
        setConfig(QStringLiteral("mediaserver/stream_cache_required_free_disk_space_mb"), 0);
        mLog.clear();
    }
    void cleanupTestCase() { ConfigStore::instance()->clearOverrides(); }

    // A hit is checked against the disk: a stored file gone or cut short behind the cache's back
    // is a miss, and its entry goes. (Every storeAndWait() proves a hit with the stored bytes.)
    void aFileChangedBehindItsBackIsAMiss_data()
    {
        QTest::addColumn<bool>("deleted");   // else cut short
        QTest::newRow("deleted") << true;
        QTest::newRow("cut short") << false;
    }
    void aFileChangedBehindItsBackIsAMiss()
    {
        QFETCH(bool, deleted);
        CacheRun run;
        QVERIFY(run.storeAndWait(QStringLiteral("song"), download(QStringLiteral("song.mp3"))));
        const QString stored = run.find(QStringLiteral("song")).file;
        QVERIFY(deleted ? QFile::remove(stored) : QFile::resize(stored, 100));
        const Answer answer = run.find(QStringLiteral("song"));
        QVERIFY(!answer.inCache && answer.file.isEmpty());
        QCOMPARE(sql(QStringLiteral("SELECT count(*) FROM streams")).toInt(), 0);
        QCOMPARE(streamFiles(), QStringList());
    }

    // A hit answers when the entry was used before, then records this use.
    void answersThePreviousUseAndRecordsThisOne()
    {
        CacheRun run;
        QVERIFY(run.storeAndWait(QStringLiteral("song"), download(QStringLiteral("song.mp3"))));
        QVERIFY(sql(QStringLiteral("UPDATE streams SET last_access = 1000 WHERE cachekey = 'song' RETURNING 1")).isValid());
        const qint64 before = QDateTime::currentSecsSinceEpoch();
        QCOMPARE(run.find(QStringLiteral("song")).timeSeconds, qint64(1000));
        const qint64 recorded = run.find(QStringLiteral("song")).timeSeconds;
        QVERIFY2(recorded >= before && recorded <= QDateTime::currentSecsSinceEpoch(), qPrintable(QString::number(recorded)));
    }

    // Only a whole download is kept; each refusal is one line and leaves nothing behind.
    void refusesWhatIsNotAWholeDownload_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QByteArray>("data");
        const QString file = mDir.filePath(QStringLiteral("downloads/part.mp3"));
        QTest::newRow("an empty description (the download did not finish)") << "k" << QByteArray();
        QTest::newRow("a description that is not JSON") << "k" << QByteArray("{\"file\": ");
        QTest::newRow("a file that does not exist") << "k" << description(file + QStringLiteral(".gone"), 4096);
        QTest::newRow("a file shorter than its length (partial)") << "k" << description(file, 4097);
        QTest::newRow("no cache key") << "" << description(file, 4096);
        QTest::newRow("more than the whole cache may hold") << "k" << description(mDir.filePath(QStringLiteral("downloads/big.mp3")), 2 * kMiB);
    }
    void refusesWhatIsNotAWholeDownload()
    {
        QFETCH(QString, key);
        QFETCH(QByteArray, data);
        download(QStringLiteral("part.mp3"), 4096);
        download(QStringLiteral("big.mp3"), 2 * kMiB);
        CacheRun run(1);
        run.store(key, data);
        QVERIFY(!run.find(key).inCache);
        QCOMPARE(streamFiles(), QStringList());
        QCOMPARE(mLog.lines().filter(QStringLiteral("not keeping")).size(), 1);
    }

    // A newer store of a key replaces the older entry, whichever of the two finishes first.
    void newerStoreReplacesOlder_data()
    {
        QTest::addColumn<QString>("older");
        QTest::addColumn<QString>("newer");
        QTest::newRow("a link replaces a link") << "one.mp3" << "two.mp3";
        QTest::newRow("a copy replaces a link") << "one.mp3" << "two-copy.mp3";
        QTest::newRow("an older copy finishing after a newer link is dropped") << "one-copy.mp3" << "two.mp3";
    }
    void newerStoreReplacesOlder()
    {
        QFETCH(QString, older);
        QFETCH(QString, newer);
        setConfig(QStringLiteral("mediaserver/stream_cache_debug_log"), true);
        CacheRun run;
        const QString first = download(older, 3 * kMiB);
        const QString second = download(newer, 5000);
        run.store(QStringLiteral("k"), description(first, 3 * kMiB));
        run.store(QStringLiteral("k"), description(second, 5000));
        // Both stores are settled once each was entered or dropped as superseded.
        QTRY_COMPARE(mLog.lines().filter(QRegularExpression(QStringLiteral("stored k as|superseded"))).size(), 2);
        QCOMPARE(fileContents(run.find(QStringLiteral("k")).file), fileContents(second));
        QCOMPARE(streamFiles().size(), 1);
    }

    // The file is linked where the file system allows (no bytes copied), copied otherwise.
    void placesTheFile_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("sharesInode");
        QTest::newRow("a hard link shares the download's inode") << "song.mp3" << true;
        QTest::newRow("a copy when linking fails") << "song-copy.mp3" << false;
    }
    void placesTheFile()
    {
        QFETCH(QString, name);
        QFETCH(bool, sharesInode);
        CacheRun run;
        const QString source = download(name, kMiB + 7);
        QVERIFY(run.storeAndWait(QStringLiteral("song"), source));
        const QString stored = run.find(QStringLiteral("song")).file;
        QCOMPARE(inodeOf(stored) == inodeOf(source), sharesInode);
        QVERIFY(QFile::remove(source));   // the buffer may clean up: the cache keeps its bytes
        QCOMPARE(fileContents(stored).size(), kMiB + 7);
        QCOMPARE(streamFiles().filter(QStringLiteral(".part")), QStringList());
    }

    // Entries a, b, c are stored, a is played again, d is stored: b is the least recently used
    // and is the one to go when a limit is passed.
    void prunesTheLeastRecentlyUsed_data()
    {
        QTest::addColumn<int>("maxMb");
        QTest::addColumn<unsigned>("maxCount");
        QTest::addColumn<QString>("setting");   // key=value applied before d is stored
        QTest::newRow("beyond the count") << 100 << 3u << "";
        QTest::newRow("beyond the size") << 3 << 100u << "";
        QTest::newRow("below the free disk space (1 MB free, 2 MB required)") << 100 << 100u
                                                                                << "stream_cache_debug_free_disk_space_mb=1";
        QTest::newRow("idle past the expiry") << 100 << 100u << "stream_cache_item_expiration=60";
    }
    void prunesTheLeastRecentlyUsed()
    {
        QFETCH(int, maxMb);
        QFETCH(unsigned, maxCount);
        QFETCH(QString, setting);
        setConfig(QStringLiteral("mediaserver/stream_cache_debug_log"), true);
        CacheRun run(maxMb, maxCount);
        for (const char* key : {"a", "b", "c"})
            QVERIFY(run.storeAndWait(QLatin1String(key), download(QLatin1String(key), kMiB)));
        QVERIFY(run.find(QStringLiteral("a")).inCache);
        QVERIFY(sql(QStringLiteral("UPDATE streams SET last_access = last_access - 120 WHERE cachekey = 'b' RETURNING 1")).isValid());
        if (!setting.isEmpty()) {
            setConfig(QStringLiteral("mediaserver/stream_cache_required_free_disk_space_mb"), 2);
            setConfig(QStringLiteral("mediaserver/") + setting.section(QLatin1Char('='), 0, 0), setting.section(QLatin1Char('='), 1));
        }
        QVERIFY(run.storeAndWait(QStringLiteral("d"), download(QStringLiteral("d"), kMiB)));
        QStringList kept;
        for (const char* key : {"a", "b", "c", "d"})
            if (run.find(QLatin1String(key)).inCache)
                kept.append(QLatin1String(key));
        QCOMPARE(kept, QStringList({"a", "c", "d"}));
        QCOMPARE(streamFiles().size(), 3);
        QCOMPARE(mLog.lines().filter(QRegularExpression(QStringLiteral("removed b \\("))).size(), 1);
    }

    // Between stores the timer prunes: an entry that expires goes without any call.
    void prunesOnItsTimer()
    {
        setConfig(QStringLiteral("mediaserver/stream_cache_prune_timer_ms"), 20);
        CacheRun run;
        QVERIFY(run.storeAndWait(QStringLiteral("a"), download(QStringLiteral("a"))));
        setConfig(QStringLiteral("mediaserver/stream_cache_item_expiration"), 60);
        QVERIFY(sql(QStringLiteral("UPDATE streams SET last_access = last_access - 120 RETURNING 1")).isValid());
        QTRY_COMPARE(streamFiles(), QStringList());
    }

    // A crash between placing a file and recording it, or a file lost while the cache was
    // down, is put right by the next start.
    void reconcilesAfterACrash()
    {
        QString lost;
        {
            CacheRun run;
            QVERIFY(run.storeAndWait(QStringLiteral("kept"), download(QStringLiteral("kept.mp3"))));
            QVERIFY(run.storeAndWait(QStringLiteral("lost"), download(QStringLiteral("lost.mp3"))));
            lost = run.find(QStringLiteral("lost")).file;
        }
        QVERIFY(QFile::remove(lost));
        for (const char* orphan : {"orphan", "cut-short.part"})
            QVERIFY(QFile::copy(download(QStringLiteral("x")), streams() + QLatin1Char('/') + QLatin1String(orphan)));
        CacheRun run;
        QVERIFY(run.find(QStringLiteral("kept")).inCache);
        QVERIFY(!run.find(QStringLiteral("lost")).inCache);
        QCOMPARE(streamFiles().size(), 1);
        QCOMPARE(sql(QStringLiteral("SELECT count(*) FROM streams")).toInt(), 1);
    }

    // A database with a damaged page is set aside for inspection and the cache starts empty, never
    // fails. (A file that is no database at all is met in the fault suite.)
    void setsADamagedDatabaseAside()
    {
        {
            CacheRun run;
            const QByteArray old = description(download(QStringLiteral("old")), 4096);
            for (int i = 0; i < 200; ++i)   // a few pages of table and index
                run.store(QStringLiteral("key %1 ").arg(i).repeated(8), old);
            QVERIFY(run.find(QStringLiteral("x")).file.isEmpty());
        }
        QFile damaged(dbFile());
        QVERIFY(damaged.open(QIODevice::ReadWrite));
        damaged.seek(4096);
        damaged.write(QByteArray(8192, '\x5a'));
        damaged.close();
        mLog.clear();
        CacheRun run;
        QVERIFY(run.storeAndWait(QStringLiteral("new"), download(QStringLiteral("new.mp3"))));
        QCOMPARE(QDir(mDir.filePath(QStringLiteral("cache"))).entryList({"stream_cache.db.corrupt-*"}).size(), 1);
        QCOMPARE(streamFiles().size(), 1);   // the old entries' files went with their table
        QCOMPARE(mLog.lines().filter(QStringLiteral("was damaged")).size(), 1);
        QCOMPARE(mLog.assertMessages(), QStringList());
    }

    // With no usable database every lookup still answers, "not cached", after one line.
    void degradesWhenTheDatabaseCannotBeOpened_data()
    {
        QTest::addColumn<bool>("readOnlyDisk");   // else a plain file stands where the folder should be
        QTest::newRow("a file where the cache folder should be") << false;
        QTest::newRow("a read-only disk") << true;
    }
    void degradesWhenTheDatabaseCannotBeOpened()
    {
        QFETCH(bool, readOnlyDisk);
        std::unique_ptr<SmallFileSystem> disk;
        if (readOnlyDisk) {
            disk.reset(new SmallFileSystem(mDir.filePath(QStringLiteral("cache")), "4m"));
            if (!disk->mounted())
                QSKIP("cannot mount a small tmpfs here (needs CAP_SYS_ADMIN)");
            QVERIFY(!CacheRun().find(QStringLiteral("x")).inCache);   // the database exists
            QVERIFY(QFile::exists(dbFile()));
            QVERIFY(disk->makeReadOnly());
        } else {
            QFile blocker(mDir.filePath(QStringLiteral("cache")));
            QVERIFY(blocker.open(QIODevice::WriteOnly));
        }
        mLog.clear();
        CacheRun run;
        run.store(QStringLiteral("song"), description(download(QStringLiteral("song.mp3")), 4096));
        QVERIFY(!run.find(QStringLiteral("song")).inCache);
        QVERIFY(!run.find(QStringLiteral("song")).inCache);
        QCOMPARE(mLog.lines().filter(QStringLiteral("stream cache unavailable")).size(), 1);
    }

    // Each of many lookups queued at once is answered exactly once, in order.
    void answersEveryLookupOnce()
    {
        CacheRun run;
        QVERIFY(run.storeAndWait(QStringLiteral("song"), download(QStringLiteral("song.mp3"))));
        QVERIFY(run.storeAndWait(QStringLiteral("marker"), download(QStringLiteral("marker.mp3"))));
        const QString markerFile = run.find(QStringLiteral("marker")).file;
        const int before = run.answers.size();
        for (int i = 0; i < 1000; ++i)
            QMetaObject::invokeMethod(run.cache, "findStream", Qt::QueuedConnection,
                                      Q_ARG(QString, i % 2 ? QStringLiteral("miss") : QStringLiteral("song")));
        // Answers come in call order, so a duplicate would arrive before the marker's answer.
        QMetaObject::invokeMethod(run.cache, "findStream", Qt::QueuedConnection, Q_ARG(QString, QStringLiteral("marker")));
        QTRY_VERIFY(run.answers.size() > before && run.answers.last().at(1).toString() == markerFile);
        QCOMPARE(run.answers.size(), before + 1001);
        for (int i = 0; i < 1000; ++i)
            QCOMPARE(run.answers.at(before + i).at(0).toBool(), i % 2 == 0);
    }

    // At exit the finaliser closes the database on the cache thread: the journal is folded back
    // into the file, and later lookups answer "not cached" instead of touching a closed file.
    void finaliserClosesTheCache()
    {
        CacheRun run;
        QVERIFY(run.storeAndWait(QStringLiteral("song"), download(QStringLiteral("song.mp3"))));
        QVERIFY(QFile::exists(dbFile() + QStringLiteral("-wal")));
        Finalizer::instance()->finalize();
        QVERIFY(!QFile::exists(dbFile() + QStringLiteral("-wal")));
        QVERIFY(!run.find(QStringLiteral("song")).inCache);
    }
};

QTEST_GUILESS_MAIN(TestStreamCache)
#include "tst_stream_cache.moc"
