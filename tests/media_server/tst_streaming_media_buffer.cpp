// The download buffer and the preloader against the loopback HTTP server, with real files in
// a temporary media cache folder: every download ends byte-identical to the resource, however
// it was interrupted, and the stream cache hears only of complete files. Also the info files
// it trusts and where a response's body belongs.

#include "media_server/MediaCacheFiles.h"
#include "media_server/ResponseExtent.h"
#include "media_server/StreamCache.h"
#include "media_server/StreamingMediaBuffer.h"
#include "media_server/StreamingMediaBufferInfo.h"
#include "media_server/StreamingMediaPreloader.h"
#include "platform/config/ConfigStore.h"
#include "platform/io/FileUtils.h"
#include "tests/support/TestConfig.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SmallFileSystem.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestHttpServer.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QJsonObject>
#include <QMutex>
#include <QTemporaryDir>
#include <QThread>
#include <QtTest>

#include <memory>

#include <sys/stat.h>

using MediaV2::MediaPlaybackMetadata;
using MediaV2::StreamingMediaBuffer;
using MediaV2::StreamingMediaBufferInfo;
using MediaV2::StreamingMediaPreloader;
namespace MediaCacheFiles = MediaV2::MediaCacheFiles;

namespace {

constexpr int kWait = 20000;
const QString kItem = QStringLiteral("/item");

// Bytes that differ from their neighbours, so a byte at a wrong offset shows.
QByteArray resourceBytes(int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(i * 31 % 251);
    return bytes;
}

qint64 allocatedBytes(const QString& path)
{
    struct stat info;
    return ::stat(QFile::encodeName(path).constData(), &info) == 0 ? qint64(info.st_blocks) * 512 : -1;
}

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
    QCOMPARE(file.write(bytes), qint64(bytes.size()));
}

// The "Range" header of each request for a path, "" where a request had none.
QStringList rangesAsked(const TestHttpServer& server, const QString& path)
{
    QStringList ranges;
    for (const QByteArray& headers : server.requestHeaders(path)) {
        const int at = headers.toLower().indexOf("\r\nrange:");
        ranges.append(at < 0 ? QString() : QString::fromLatin1(headers.mid(at + 9, headers.indexOf("\r\n", at + 2) - at - 9).trimmed()));
    }
    return ranges;
}

} // namespace

// A stream cache whose store() only records what it was handed, on its own thread as the real
// one, so a test sees exactly which hand-overs the buffer made.
class StoreRecorder : public MediaV2::StreamCache
{
    Q_OBJECT
public:
    StoreRecorder() : StreamCache(1, 1) {}
    Q_INVOKABLE void store(QString cachekey, QByteArray data)
    {
        QMutexLocker locker(&mLock);
        mStores.append(qMakePair(cachekey, data));
    }
    QList<QPair<QString, QByteArray>> stores() const
    {
        QMutexLocker locker(&mLock);
        return mStores;
    }

private:
    mutable QMutex mLock;
    QList<QPair<QString, QByteArray>> mStores;   // guarded by mLock
};

// What one buffer reported, in order.
struct BufferLog {
    QList<int> states;
    QList<qreal> fractions;
    QList<qint64> downloaded;
    QList<qint64> totals;
    qint64 downloadedAtBuffering = -1;   // the last count reported before Buffering

    void watch(StreamingMediaBuffer* buffer)
    {
        QObject::connect(buffer, &StreamingMediaBuffer::bufferStateChanged, buffer, [this](StreamingMediaBuffer::State state) {
            states.append(state);
            if (state == StreamingMediaBuffer::Buffering)
                downloadedAtBuffering = downloaded.isEmpty() ? 0 : downloaded.last();
        });
        QObject::connect(buffer, &StreamingMediaBuffer::bufferProgress, buffer, [this](qreal fraction, qint64 bytes, qint64 total) {
            fractions.append(fraction);
            downloaded.append(bytes);
            totals.append(total);
        });
    }
};

class TestStreamingMediaBuffer : public QObject
{
    Q_OBJECT

    std::unique_ptr<QTemporaryDir> mFolder;
    TestHttpServer mServer;
    QThread mCacheThread;
    StoreRecorder* mCache = nullptr;
    std::unique_ptr<LogCapture> mLog;

    QString folder() const { return mFolder->path(); }
    MediaPlaybackMetadata item(const QString& key, const QString& path = kItem) const
    {
        MediaPlaybackMetadata metadata;
        metadata.url = mServer.url(path).toString();
        metadata.cacheKey = key;
        metadata.shouldCache = true;
        metadata.valid = true;
        return metadata;
    }
    TestHttpResource serve(int size) const
    {
        TestHttpResource resource;
        resource.body = resourceBytes(size);
        return resource;
    }
    int storesOf(const QString& key) const
    {
        // Every store already queued to the cache thread has arrived once this returns.
        QMetaObject::invokeMethod(mCache, [] {}, Qt::BlockingQueuedConnection);
        int count = 0;
        for (const auto& store : mCache->stores())
            count += store.first == key ? 1 : 0;
        return count;
    }
    // Runs a buffer on the item until it ends; the data file must then be the resource.
    void expectFinished(StreamingMediaBuffer& buffer, const QByteArray& body)
    {
        QTRY_VERIFY_WITH_TIMEOUT(buffer.state() != StreamingMediaBuffer::Initializing && buffer.state() != StreamingMediaBuffer::Buffering, kWait);
        QCOMPARE(StreamingMediaBuffer::nameForState(buffer.state()), QStringLiteral("Finished"));
        QVERIFY(fileContents(buffer.cacheFile()) == body);
    }

private slots:
    void initTestCase()
    {
        QVERIFY(mServer.start());
        mCache = new StoreRecorder;
        mCache->moveToThread(&mCacheThread);
        mCacheThread.start();
    }
    void cleanupTestCase()
    {
        QMetaObject::invokeMethod(mCache, "deleteLater", Qt::QueuedConnection);
        mCacheThread.quit();
        QVERIFY(mCacheThread.wait(kWait));
        ConfigStore::instance()->clearOverrides();
    }
    void init()
    {
        ConfigStore::instance()->clearOverrides();
        mFolder = std::make_unique<QTemporaryDir>();
        setConfig(QStringLiteral("storage/media_cache_folder"), folder());
        setConfig(QStringLiteral("storage/alternate_media_cache_folder"), folder() + QStringLiteral("/old"));
        mLog = std::make_unique<LogCapture>();
    }

    // What a later start makes of the info file it finds.
    void infoFilesAreTrustedOnlyWhenSound_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<int>("read");   // StreamingMediaBufferInfo::Read
        const auto valid = int(StreamingMediaBufferInfo::Read::Valid);
        const auto damaged = int(StreamingMediaBufferInfo::Read::Damaged);
        QTest::newRow("a complete download") << QByteArray("{\"complete\":true,\"written\":1000,\"length\":1000,\"cachekey\":\"k\",\"url\":\"http://h/a\"}") << valid;
        QTest::newRow("a member missing") << QByteArray("{\"complete\":false,\"written\":500,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("a negative count") << QByteArray("{\"complete\":false,\"written\":-1,\"length\":1000,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("more written than the length") << QByteArray("{\"complete\":false,\"written\":1001,\"length\":1000,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("complete with bytes missing") << QByteArray("{\"complete\":true,\"written\":999,\"length\":1000,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("another cache key") << QByteArray("{\"complete\":true,\"written\":1000,\"length\":1000,\"cachekey\":\"other\",\"url\":\"u\"}") << damaged;
    }
    void infoFilesAreTrustedOnlyWhenSound()
    {
        QFETCH(QByteArray, json);
        QFETCH(int, read);
        const QString path = QDir(folder()).filePath(QStringLiteral("info.txt"));
        writeFile(path, json);
        StreamingMediaBufferInfo info;
        QString problem;
        QCOMPARE(int(StreamingMediaBufferInfo::read(path, QStringLiteral("k"), &info, &problem)), read);
        QCOMPARE(problem.isEmpty(), read == int(StreamingMediaBufferInfo::Read::Valid));
        if (read == int(StreamingMediaBufferInfo::Read::Valid)) {
            QCOMPARE(QJsonDocument::fromJson(info.toJson()), QJsonDocument::fromJson(json));   // reads back as written
            return;
        }
        QCOMPARE(info.written, qint64(0));   // nothing of a damaged file is taken
    }

    // Where a response's body belongs and how long the resource is, from its headers.
    void readsTheResponseExtent_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<QByteArray>("contentLength");
        QTest::addColumn<QByteArray>("contentRange");
        QTest::addColumn<qint64>("bodyStart");
        QTest::addColumn<qint64>("total");
        QTest::newRow("206 from another byte than asked") << 206 << QByteArray("4000") << QByteArray("bytes 1000-4999/5000") << qint64(1000) << qint64(5000);
        QTest::newRow("206 with an unknown total: start plus length") << 206 << QByteArray("3000") << QByteArray("bytes 2000-4999/*") << qint64(2000) << qint64(5000);
        QTest::newRow("206 without Content-Range: the offset asked plus length") << 206 << QByteArray("3000") << QByteArray() << qint64(2000) << qint64(5000);
        QTest::newRow("a length that is not a number: unknown") << 200 << QByteArray("lots") << QByteArray() << qint64(0) << qint64(0);
    }
    void readsTheResponseExtent()
    {
        QFETCH(int, status);
        QFETCH(QByteArray, contentLength);
        QFETCH(QByteArray, contentRange);
        QFETCH(qint64, bodyStart);
        QFETCH(qint64, total);
        const MediaV2::ResponseExtent extent = MediaV2::ResponseExtent::of(2000, status, contentLength, contentRange);
        QCOMPARE(extent.bodyStart, bodyStart);
        QCOMPARE(extent.total, total);
    }

    // A download that runs to its end: progress only rises and reads 1.0 only at Finished, the
    // file is the resource, the info file says complete, and the stream cache hears of it
    // once. A second start finds it complete and asks the server for nothing.
    void completesAndHandsOverOnce_data()
    {
        QTest::addColumn<bool>("contentLength");
        QTest::addColumn<bool>("redirected");
        QTest::newRow("with a length, through a redirect: only the final response's headers count") << true << true;
        QTest::newRow("without a length") << false << false;
    }
    void completesAndHandsOverOnce()
    {
        QFETCH(bool, contentLength);
        QFETCH(bool, redirected);
        const QString key = QStringLiteral("complete/%1").arg(QTest::currentDataTag());
        TestHttpResource resource = serve(700000);
        resource.contentLength = contentLength;
        mServer.setResource(kItem, resource);
        TestHttpResource moved;
        moved.redirectTo = mServer.url(kItem).toString().toUtf8();
        mServer.setResource(QStringLiteral("/moved"), moved);
        setConfig(QStringLiteral("media_buffer/header_debug"), QStringLiteral("true"));
        const int requestsBefore = mServer.requestCount(kItem);

        StreamingMediaBuffer buffer(item(key, redirected ? QStringLiteral("/moved") : kItem), {}, mCache);
        BufferLog log;
        log.watch(&buffer);
        buffer.start();
        expectFinished(buffer, resource.body);

        const qint64 size = resource.body.size();
        QCOMPARE(log.fractions.last(), 1.0);
        QCOMPARE(log.downloaded.last(), size);
        for (int i = 1; i < log.fractions.size(); ++i) {
            QVERIFY2(log.fractions[i] >= log.fractions[i - 1], "progress went back");
            QVERIFY2(i == log.fractions.size() - 1 || log.fractions[i] < 1.0, "1.0 before the end");
            QVERIFY2(log.totals[i] == (contentLength ? size : 0) || i == log.fractions.size() - 1, "a length not the resource's");
        }
        QCOMPARE(log.states.count(StreamingMediaBuffer::Finished), 1);
        QVERIFY(!mLog->hasLineContaining(QStringLiteral("[Header] Location")));
        StreamingMediaBufferInfo info;
        QString problem;
        QTRY_VERIFY_WITH_TIMEOUT(StreamingMediaBufferInfo::read(MediaCacheFiles::infoFileName(key), key, &info, &problem)
                                     == StreamingMediaBufferInfo::Read::Valid && info.complete, kWait);
        QCOMPARE(info.length, size);
        QTRY_COMPARE_WITH_TIMEOUT(storesOf(key), 1, kWait);
        const QJsonObject handedOver = QJsonDocument::fromJson(mCache->stores().last().second).object();
        QCOMPARE(handedOver.value(QStringLiteral("file")).toString(), buffer.cacheFile());
        QCOMPARE(qint64(handedOver.value(QStringLiteral("length")).toDouble()), size);

        StreamingMediaBuffer again(item(key), {}, mCache);
        BufferLog againLog;
        againLog.watch(&again);
        again.start();
        QCOMPARE(again.state(), StreamingMediaBuffer::Finished);
        QCOMPARE(againLog.fractions, QList<qreal>{1.0});
        QVERIFY(mLog->hasLineContaining(QStringLiteral("already cached content")));
        QCOMPARE(mServer.requestCount(kItem), requestsBefore + 1);
        // A buffer runs only after the stream cache answered "not cached": the complete file is
        // offered to it again, so an entry the cache lost comes back.
        QTRY_COMPARE_WITH_TIMEOUT(storesOf(key), 2, kWait);
    }

    // However a download was cut off, it continues with a range request and ends
    // byte-identical; a server that ignores the range makes the file start over.
    void resumesWhereItStopped_data()
    {
        QTest::addColumn<bool>("processDies");     // else the server drops the connection
        QTest::addColumn<bool>("stopFirst");       // the owner stops it from its progress report, then it dies
        QTest::addColumn<bool>("rangesHonoured");
        QTest::newRow("dropped three times: resumed each time, the failed count reset by new data") << false << false << true;
        QTest::newRow("stopped from its own progress report half-way: the next start resumes") << true << true << true;
        QTest::newRow("the process dies and the server then ignores ranges: starts over") << true << false << false;
    }
    void resumesWhereItStopped()
    {
        QFETCH(bool, processDies);
        QFETCH(bool, stopFirst);
        QFETCH(bool, rangesHonoured);
        const QString key = QStringLiteral("resume/%1").arg(QTest::currentDataTag());
        TestHttpResource resource = serve(800000);
        if (processDies)
            resource.bytesPerSecond = 400000;
        else
            resource.closeAfter = 300000;   // every connection: three are needed
        mServer.setResource(kItem, resource);
        setConfig(QStringLiteral("media_buffer/download_retries"), QStringLiteral("1"));
        const int requestsBefore = mServer.requestCount(kItem);

        auto buffer = std::make_unique<StreamingMediaBuffer>(item(key), MediaPlaybackMetadata(), mCache);
        BufferLog log;
        log.watch(buffer.get());
        bool stopped = false;
        if (stopFirst) {
            StreamingMediaBuffer* running = buffer.get();
            connect(running, &StreamingMediaBuffer::bufferProgress, running, [running, &stopped](qreal, qint64 bytes) {
                if (bytes > 300000 && !stopped) {
                    stopped = true;
                    running->stop();
                }
            });
        }
        buffer->start();
        if (processDies) {
            QTRY_VERIFY_WITH_TIMEOUT(!log.downloaded.isEmpty() && log.downloaded.last() > 300000, kWait);
            QCOMPARE(stopped, stopFirst);
            QVERIFY(QFileInfo::exists(MediaCacheFiles::infoFileName(key)));
            buffer.reset();
            resource.bytesPerSecond = 0;
            resource.acceptRanges = rangesHonoured;
            mServer.setResource(kItem, resource);
            buffer = std::make_unique<StreamingMediaBuffer>(item(key), MediaPlaybackMetadata(), mCache);
            buffer->start();
        }
        expectFinished(*buffer, resource.body);

        const QStringList ranges = rangesAsked(mServer, kItem).mid(requestsBefore);
        QCOMPARE(ranges.size(), processDies ? 2 : 3);
        QCOMPARE(ranges.first(), QString());
        for (const QString& range : ranges.mid(1))
            QVERIFY2(QRegularExpression(QStringLiteral("^bytes=[1-9][0-9]*-$")).match(range).hasMatch(), qPrintable(range));
        QCOMPARE(mLog->hasLineContaining(QStringLiteral("starting the file over")), !rangesHonoured);
    }

    // What a start makes of the files an earlier run left: it trusts only what checks out,
    // and ends byte-identical either way.
    void startsFromWhatIsOnDisk_data()
    {
        QTest::addColumn<QByteArray>("info");   // "%1": the resource's length; empty: no info file
        QTest::addColumn<int>("dataBytes");     // a prefix of the resource; -1: no data file
        QTest::addColumn<QString>("range");     // the range asked; "none": no request at all
        QTest::addColumn<QString>("logged");
        const QByteArray partial("{\"complete\":false,\"written\":300000,\"length\":%1,\"cachekey\":\"k\",\"url\":\"u\"}");
        QTest::newRow("a damaged info file: from the start") << QByteArray("{\"complete\":false,\"writ") << 200000 << "" << "ignoring the info file";
        QTest::newRow("an info file without its data file: reported, from the start") << partial << -1 << "" << "Info file found but no associated cache file.";
        QTest::newRow("a data file shorter than its info file says: from its size") << partial << 200000 << "bytes=200000-" << "resuming from the 200000 bytes";
        QTest::newRow("complete info, truncated data: from the start") << QByteArray("{\"complete\":true,\"written\":%1,\"length\":%1,\"cachekey\":\"k\",\"url\":\"u\"}") << 1000 << "" << "downloading it again";
        QTest::newRow("every byte there, info not yet complete: no request") << partial << 500000 << "none" << "already holds all 500000 bytes";
    }
    void startsFromWhatIsOnDisk()
    {
        QFETCH(QByteArray, info);
        QFETCH(int, dataBytes);
        QFETCH(QString, range);
        QFETCH(QString, logged);
        const TestHttpResource resource = serve(500000);
        mServer.setResource(kItem, resource);
        const QString key = QStringLiteral("k");
        if (!info.isEmpty())
            writeFile(MediaCacheFiles::infoFileName(key), QString::fromLatin1(info).arg(resource.body.size()).toLatin1());
        const QString linked = QDir(folder()).filePath(QStringLiteral("linked/by-the-stream-cache"));
        if (dataBytes >= 0) {
            writeFile(MediaCacheFiles::cacheFileName(key), resource.body.left(dataBytes));
            QVERIFY(QDir(folder()).mkpath(QStringLiteral("linked")));
            QString error;
            QVERIFY2(FileUtils::hardLink(MediaCacheFiles::cacheFileName(key), linked, &error), qPrintable(error));
        }
        const int requestsBefore = mServer.requestCount(kItem);

        StreamingMediaBuffer buffer(item(key), {}, mCache);
        buffer.start();
        expectFinished(buffer, resource.body);
        const QStringList ranges = rangesAsked(mServer, kItem).mid(requestsBefore);
        QCOMPARE(ranges, range == QLatin1String("none") ? QStringList() : QStringList{range});
        const QStringList said = mLog->lines() + mLog->assertMessages();
        QVERIFY2(!said.filter(logged).isEmpty(), qPrintable(logged));
        QCOMPARE(mLog->assertMessages().size(), logged.startsWith(QLatin1String("Info file")) ? 1 : 0);
        if (range.isEmpty() && dataBytes >= 0)   // a new download never writes into a file the cache may share
            QVERIFY(fileContents(linked) == resource.body.left(dataBytes));
    }

    // A download that cannot go on fails after the retries its kind of failure allows; the file
    // holds only whole, correctly placed bytes of the resource, and the stream cache hears nothing.
    void failsAfterTheAllowedRetries_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<qint64>("closeAfter");
        QTest::addColumn<bool>("fullDisk");
        QTest::addColumn<int>("requests");
        QTest::newRow("an HTTP error is not retried") << 404 << qint64(-1) << false << 1;
        QTest::newRow("a connection dropped again past the retry limit") << 200 << qint64(0) << false << 2;
        QTest::newRow("a full disk: resumed once from the bytes written") << 200 << qint64(-1) << true << 2;
    }
    void failsAfterTheAllowedRetries()
    {
        QFETCH(int, status);
        QFETCH(qint64, closeAfter);
        QFETCH(bool, fullDisk);
        QFETCH(int, requests);
        std::unique_ptr<SmallFileSystem> disk;
        if (fullDisk) {
            disk = std::make_unique<SmallFileSystem>(folder(), "256k");
            if (!disk->mounted())
                QSKIP("cannot mount a small tmpfs here (needs CAP_SYS_ADMIN)");
        }
        TestHttpResource resource = serve(600000);
        resource.status = status;
        resource.closeAfter = closeAfter;
        mServer.setResource(kItem, resource);
        setConfig(QStringLiteral("media_buffer/download_retries"), QStringLiteral("1"));
        const int requestsBefore = mServer.requestCount(kItem);

        StreamingMediaBuffer buffer(item(QStringLiteral("failing")), {}, mCache);
        buffer.start();
        QTRY_COMPARE_WITH_TIMEOUT(buffer.state(), StreamingMediaBuffer::Failed, kWait);
        QCOMPARE(mServer.requestCount(kItem) - requestsBefore, requests);
        QCOMPARE(storesOf(QStringLiteral("failing")), 0);
        if (!fullDisk) {
            QVERIFY(!QFileInfo::exists(buffer.cacheFile()) || FileUtils::fileSize(buffer.cacheFile()) == 0);
            return;
        }
        QVERIFY(mLog->hasLineContaining(QStringLiteral("Failed to write to disk cache:")));
        QVERIFY(mLog->hasLineContaining(QStringLiteral("failed with cannot write the cache file: ")));
        QVERIFY(rangesAsked(mServer, kItem).last().startsWith(QLatin1String("bytes=")));
        QTRY_VERIFY_WITH_TIMEOUT(FileUtils::fileSize(buffer.cacheFile()) > 0, kWait);
        const QByteArray kept = fileContents(buffer.cacheFile());
        QVERIFY(kept == resource.body.left(kept.size()));
    }

    // Playback may start once the item's own wish is on disk: bytes, or milliseconds of a
    // known length and duration; else the configured bytes.
    void passesTheThresholdAt_data()
    {
        QTest::addColumn<int>("bufferBytes");
        QTest::addColumn<int>("bufferMs");
        QTest::addColumn<qint64>("threshold");   // in bytes of the 600000-byte item
        QTest::newRow("the configured bytes") << 0 << 0 << qint64(100000);
        QTest::newRow("the item's bytes") << 250000 << 0 << qint64(250000);
        QTest::newRow("the item's milliseconds: half of a 10 s item") << 0 << 5000 << qint64(300000);
    }
    void passesTheThresholdAt()
    {
        QFETCH(int, bufferBytes);
        QFETCH(int, bufferMs);
        QFETCH(qint64, threshold);
        TestHttpResource resource = serve(600000);
        resource.bytesPerSecond = 1200000;
        mServer.setResource(kItem, resource);
        setConfig(QStringLiteral("media_buffer/initial_threshold_bytes"), QStringLiteral("100000"));
        MediaPlaybackMetadata metadata = item(QStringLiteral("threshold"));
        metadata.bufferBytes = bufferBytes;
        metadata.bufferMs = bufferMs;
        metadata.duration = 10000;

        StreamingMediaBuffer buffer(metadata, {}, mCache);
        BufferLog log;
        log.watch(&buffer);
        buffer.start();
        expectFinished(buffer, resource.body);
        QCOMPARE(log.states.count(StreamingMediaBuffer::Buffering), 1);
        const int at = log.states.indexOf(StreamingMediaBuffer::Buffering);
        QCOMPARE(log.states.mid(at - 1, 2), (QList<int>{StreamingMediaBuffer::Initializing, StreamingMediaBuffer::Buffering}));
        QVERIFY2(log.downloadedAtBuffering < threshold + (bufferMs > 0 ? 0 : 1), qPrintable(QString::number(log.downloadedAtBuffering)));
        const qint64 firstAfter = log.downloaded.value(log.downloaded.indexOf(log.downloadedAtBuffering) + 1);
        QVERIFY2(firstAfter >= threshold, qPrintable(QString::number(firstAfter)));
    }

    // The preloader ends once, hands over only what it completed, and a stopped preload is
    // continued by the buffer the item gets when it becomes current. (A preload that completes
    // and is then played from the cache is met in the server suite.)
    void preloadEnds_data()
    {
        QTest::addColumn<bool>("alreadyComplete");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("state");
        QTest::addColumn<int>("requests");
        QTest::addColumn<bool>("handedOver");   // as nothing (an empty description): the cache must not wait for it
        QTest::newRow("a complete info file: finished at once") << true << 200 << "Finished" << 0 << false;
        QTest::newRow("a failing download: handed over as nothing") << false << 500 << "Failed" << 1 << true;
    }
    void preloadEnds()
    {
        QFETCH(bool, alreadyComplete);
        QFETCH(int, status);
        QFETCH(QString, state);
        QFETCH(int, requests);
        QFETCH(bool, handedOver);
        const QString key = QStringLiteral("preload/%1").arg(QTest::currentDataTag());
        TestHttpResource resource = serve(400000);
        resource.status = status;
        mServer.setResource(kItem, resource);
        if (alreadyComplete) {
            writeFile(MediaCacheFiles::cacheFileName(key), resource.body);
            writeFile(MediaCacheFiles::infoFileName(key), QStringLiteral("{\"complete\":true,\"written\":400000,\"length\":400000,\"cachekey\":\"%1\",\"url\":\"u\"}").arg(key).toUtf8());
        }
        const int requestsBefore = mServer.requestCount(kItem);

        StreamingMediaPreloader preloader(item(key), mCache);
        QSignalSpy finished(&preloader, &StreamingMediaPreloader::finished);
        preloader.start();
        QTRY_COMPARE_WITH_TIMEOUT(finished.count(), 1, kWait);
        QCOMPARE(StreamingMediaBuffer::nameForState(preloader.state()), state);
        QCOMPARE(mServer.requestCount(kItem) - requestsBefore, requests);
        QTRY_COMPARE_WITH_TIMEOUT(storesOf(key), handedOver ? 1 : 0, kWait);
        if (handedOver)
            QVERIFY(mCache->stores().last().second.isEmpty());
        QVERIFY(!finished.wait(100));   // and only once
    }
    void aStoppedPreloadIsResumedByTheBuffer()
    {
        TestHttpResource resource = serve(800000);
        resource.bytesPerSecond = 400000;
        mServer.setResource(kItem, resource);
        const QString key = QStringLiteral("next");
        auto preloader = std::make_unique<StreamingMediaPreloader>(item(key), mCache);
        preloader->start();
        QTRY_VERIFY_WITH_TIMEOUT(FileUtils::fileSize(preloader->cacheFile()) > 200000, kWait);
        preloader->stop();
        preloader.reset();
        // The room reserved for the whole item is given back with the stop.
        QTRY_VERIFY_WITH_TIMEOUT(allocatedBytes(MediaCacheFiles::cacheFileName(key)) < 600000, kWait);

        resource.bytesPerSecond = 0;
        mServer.setResource(kItem, resource);
        StreamingMediaBuffer buffer(item(key), item(QStringLiteral("after next")), mCache);
        buffer.start();
        expectFinished(buffer, resource.body);
        QVERIFY(rangesAsked(mServer, kItem).last().startsWith(QLatin1String("bytes=")));
    }
};

QTEST_GUILESS_MAIN(TestStreamingMediaBuffer)
#include "tst_streaming_media_buffer.moc"
