// The real cabin-media-server through the faults a car meets: killed mid-download, a full disk,
// a damaged cache database, a network that drops and a user who forbids going online. Each case
// ends with the state the server publishes, the item heard whole and its cached copy identical
// to the source: nothing is lost.

#include "tests/support/ServerProcess.h"
#include "tests/support/SmallFileSystem.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestHttpServer.h"
#include "tests/support/WavReader.h"

#include <QCryptographicHash>
#include <QDBusVariant>
#include <QDir>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStorageInfo>
#include <QtTest>

namespace {

// Generous: the suite also runs under the sanitizers with other suites beside it.
const int kWaitMs = 60000;
const int kSeconds = 6;
const int kBytesPerSecond = 16000;   // the tone's 128 kbit/s
const QString kKey = QStringLiteral("fault-item");

} // namespace

class TestFaults : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QString error;
        const QString tone = SteppedTone::file(SteppedTone::Format::Mp3, kSeconds, &error);
        QVERIFY2(!tone.isEmpty(), qPrintable(error));
        mWhole.body = fileContents(tone);
        QVERIFY(mMedia.start());
    }

    // Killed while the item downloads, the server resumes the download where its file ends.
    void resumesAfterBeingKilled()
    {
        TestHttpResource slow = mWhole;   // six seconds of loading
        slow.bytesPerSecond = kBytesPerSecond;
        const QString path = newPath(slow);
        ServerProcess server;
        QVERIFY(start(server));
        QVERIFY(load(server, path));
        const QString dataFile = server.cacheRoot() + "/media_cache/" + QCryptographicHash::hash(kKey.toUtf8(), QCryptographicHash::Md5).toHex() + "_cache";
        QTRY_VERIFY_WITH_TIMEOUT(QFileInfo(dataFile).size() >= 2 * kBytesPerSecond, kWaitMs);
        server.process().kill();
        QVERIFY(server.waitForExit());
        QCOMPARE(server.process().exitStatus(), QProcess::CrashExit);
        const qint64 kept = QFileInfo(dataFile).size();
        QVERIFY2(kept < mWhole.body.size(), "the download ended before the kill");
        mMedia.setResource(path, mWhole);
        const int requests = mMedia.requestCount(path);
        QVERIFY(start(server));
        const int mark = server.logLineCount();
        QVERIFY(load(server, path));
        QVERIFY(server.waitForState("Loaded", mark));
        QCOMPARE(mMedia.requestCount(path), requests + 1);
        const QByteArray range = "Range: bytes=" + QByteArray::number(kept) + "-";
        QVERIFY2(mMedia.requestHeaders(path).last().contains(range), mMedia.requestHeaders(path).last().constData());
        playsWholeAndIsCached(server, mark);
    }

    // A full disk fails the item and nothing else: the server keeps answering, no damaged file
    // enters the stream cache, and once there is room the item downloads and plays.
    void survivesAFullDisk()
    {
        const QString path = newPath(mWhole);
        ServerProcess server;
        SmallFileSystem disk(server.home() + "/cache", "2m");   // the server's whole cache root
        if (!disk.mounted())
            QSKIP("cannot mount a tmpfs here (needs CAP_SYS_ADMIN)");
        // On a 2 MB disk the cache's usual free-space floor would refuse every store.
        QVERIFY(start(server, {"mediaserver/stream_cache_required_free_disk_space_mb=0"}));
        QStorageInfo room(server.cacheRoot());
        const QString filler = server.writeFile("cache/filler", QByteArray(room.bytesAvailable() - 16 * 1024, 'x'));
        const int mark = server.logLineCount();
        QVERIFY(load(server, path));
        QVERIFY(server.waitForState("MediaFetchError", mark));
        QCOMPARE(server.publishedPair(), QStringLiteral("MediaFetchError, RecoverableFetchError"));
        QVERIFY(server.logHas("Failed to write to disk cache: ", mark));
        const QDBusMessage status = server.request("ServiceStatus");
        QVERIFY2(status.type() == QDBusMessage::ReplyMessage && !status.arguments().value(0).toString().isEmpty(), qPrintable(status.errorMessage()));
        QCOMPARE(streamFiles(server), QStringList());
        QVERIFY(QFile::remove(filler));
        const int again = server.logLineCount();
        QVERIFY(load(server, path));
        playsWholeAndIsCached(server, again);
    }

    // A stream cache database damaged while the server was down is set aside, not fatal: a fresh
    // one takes its place and the next item is cached in it.
    void setsADamagedCacheDatabaseAside()
    {
        const QString path = newPath(mWhole);
        ServerProcess server;
        QVERIFY(start(server));
        QVERIFY(load(server, path));
        QTRY_VERIFY_WITH_TIMEOUT(server.logHas("stored " + kKey), kWaitMs);
        QVERIFY(server.terminate());
        const QString folder = server.cacheRoot() + "/stream_cache";
        const QByteArray garbage = QByteArray("this is no database ").repeated(200);
        server.writeFile("cache/CabinMediaServer2/stream_cache/stream_cache.db", garbage);
        const int mark = server.logLineCount();
        QVERIFY(start(server));
        QTRY_VERIFY_WITH_TIMEOUT(server.logHas("stream_cache.db was damaged; moved it to ", mark), kWaitMs);
        const QStringList aside = QDir(folder).entryList({"stream_cache.db.corrupt-*Z"}, QDir::Files);   // not its journals
        QCOMPARE(aside.size(), 1);
        QCOMPARE(fileContents(folder + "/" + aside.first()), garbage);
        QVERIFY(QFileInfo(folder + "/stream_cache.db").size() > 0);
        QVERIFY(load(server, path));
        playsWholeAndIsCached(server, mark);
    }

    // The connection breaks mid-item and the server stays silent (the retries time out), or the
    // user forbids going online before the retry. Playback pauses for the underrun and goes on
    // once the network is back; past the retries the item fails as a fetch error and the next
    // load plays.
    void ridesOutANetworkDrop_data()
    {
        QTest::addColumn<bool>("offline");     // GUI_canUseInternet false from before the drop until the underrun
        QTest::addColumn<bool>("comesBack");   // the server serves again once playback has paused
        QTest::newRow("back within the retries: buffers, then plays to the end") << false << true;
        QTest::newRow("down past the retries: a fetch error, then a new load plays") << false << false;
        QTest::newRow("offline: no retry until online again, then plays to the end") << true << true;
    }

    void ridesOutANetworkDrop()
    {
        QFETCH(bool, offline);
        QFETCH(bool, comesBack);
        TestHttpResource dropping = mWhole;   // breaks after three of the six seconds
        dropping.bytesPerSecond = 2 * kBytesPerSecond;
        dropping.closeAfter = 3 * kBytesPerSecond;
        TestHttpResource silent = mWhole;   // answers, then sends nothing
        silent.stallAfter = 0;
        const QString path = newPath(dropping);
        bool up = offline;   // an offline server never asks while the network is down
        QObject scope;
        connect(&mMedia, &TestHttpServer::requestReceived, &scope, [&](const QString& asked) {
            if (asked == path && mMedia.requestCount(path) > 1)
                mMedia.setResource(path, up ? mWhole : silent);
        });
        ServerProcess server;
        QVERIFY(start(server));
        QVERIFY(load(server, path));
        if (offline) {
            QTRY_COMPARE_WITH_TIMEOUT(mMedia.requestCount(path), 1, kWaitMs);
            QVERIFY(setOnline(server, false));
        }
        QVERIFY(server.waitForState("Loaded"));
        QVERIFY(answer(server, "play", {0}));
        QVERIFY(server.waitForState("Buffering"));   // played up to the gap
        if (offline) {
            QVERIFY(server.logHas("Lost connectivity. Not retrying until connectivity restored."));
            QCOMPARE(mMedia.requestCount(path), 1);
            QVERIFY(setOnline(server, true));
        }
        if (!comesBack) {
            QVERIFY(server.waitForState("MediaFetchError"));
            QCOMPARE(server.publishedPair(), QStringLiteral("MediaFetchError, TimeoutFetchError"));
            QVERIFY(server.logHas("Download failed [#4] with error: "));
        }
        up = true;
        const int mark = comesBack ? 0 : server.logLineCount();
        if (!comesBack)
            QVERIFY(load(server, path));
        playsWholeAndIsCached(server, mark);
        if (QTest::currentTestFailed())
            return;
        QVERIFY2(mMedia.requestHeaders(path).last().contains("Range: bytes="), mMedia.requestHeaders(path).last().constData());
        if (comesBack)
            QVERIFY2(server.publishedInOrder({"Playing, NoError", "Buffering, NoError", "Playing, NoError", "PlaybackComplete, NoError"}),
                     qPrintable(server.pairsSince(0).join(" | ")));
    }

private:
    // A path of its own for each case, so the server's request counts are the case's own.
    QString newPath(const TestHttpResource& resource)
    {
        const QString path = QStringLiteral("/item-%1.mp3").arg(++mPaths);
        mMedia.setResource(path, resource);
        return path;
    }

    // Short time-outs and thresholds, so that a fault plays out in seconds: the item may start
    // after two seconds are on disk, pauses with less than two ahead and resumes with three.
    bool start(ServerProcess& server, const QStringList& extra = {})
    {
        return server.start(QStringList{"gstreamer/audio_sink=audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1 ! "
                                        "wavenc ! filesink location=" + wavOf(server) + " sync=true",
                                        "gstreamer/progress_poll_interval=50", "mediaserver/stream_cache_debug_log=true",
                                        "media_buffer/download_timeout=2500", "media_buffer/download_retries=3",
                                        "media_buffer/initial_threshold_bytes=" + QString::number(2 * kBytesPerSecond),
                                        "media_buffer/underrun_threshold_ms=2000", "media_buffer/resume_play_threshold_ms=3000"}
                            + extra);
    }

    static QString wavOf(const ServerProcess& server) { return server.home() + QStringLiteral("/out.wav"); }

    bool load(ServerProcess& server, const QString& path)
    {
        const QVariantMap fields{{"url", mMedia.url(path).toString()}, {"cachekey", kKey}, {"should_cache", true}, {"duration", kSeconds * 1000}};
        return answer(server, "loadMedia", {QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(fields)).toJson(QJsonDocument::Compact)), QString()});
    }

    static bool answer(ServerProcess& server, const QString& method, const QVariantList& args = {})
    {
        const QDBusMessage reply = server.request(method, args);
        return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
    }

    // As the vehicle's connectivity service sets it, through the data values' Set.
    static bool setOnline(ServerProcess& server, bool online)
    {
        const QDBusMessage reply = server.call("/DataValues", "com.kelvramotors.DataValues", "Set",
                                               {QStringLiteral("GUI_canUseInternet"), QVariant::fromValue(QDBusVariant(online))});
        return reply.type() == QDBusMessage::ReplyMessage && server.value("GUI_canUseInternet") == QVariantList{true, online};
    }

    static QStringList streamFiles(const ServerProcess& server)
    {
        return QDir(server.cacheRoot() + "/stream_cache/streams").entryList(QDir::Files);
    }

    // The loaded item (since log line `mark`) plays to its end, every second of it heard, is
    // stored in the stream cache byte for byte, and the server stops cleanly.
    void playsWholeAndIsCached(ServerProcess& server, int mark)
    {
        if (!server.pairsSince(mark).contains("Playing, NoError")) {
            QVERIFY(server.waitForState("Loaded", mark));
            QVERIFY(answer(server, "play", {0}));
        }
        QVERIFY(server.waitForState("PlaybackComplete", mark));
        QCOMPARE(server.publishedPair(), QStringLiteral("PlaybackComplete, NoError"));
        QCOMPARE(WavReader::steppedSecondsIn(wavOf(server)), WavReader::secondsFromTo(0, kSeconds - 1));
        QTRY_VERIFY_WITH_TIMEOUT(server.logHas("stored " + kKey, mark), kWaitMs);
        const QStringList stored = streamFiles(server);
        QCOMPARE(stored.size(), 1);
        QVERIFY(fileContents(server.cacheRoot() + "/stream_cache/streams/" + stored.first()) == mWhole.body);
        QVERIFY(server.terminate());
    }

    TestHttpServer mMedia;
    TestHttpResource mWhole;
    int mPaths = 0;
};

QTEST_GUILESS_MAIN(TestFaults)
#include "tst_faults.moc"
