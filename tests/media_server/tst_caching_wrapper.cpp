// The source-selection wrapper with the real engine (to a silent sink), the loopback server,
// real disk buffers and a real stream cache in a temporary folder: which source each item
// gets, and how a failed download stops the engine.

#include "media_server/CachingGStreamerWrapper.h"
#include "tests/support/TestConfig.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestHttpServer.h"

#include <QTemporaryDir>
#include <QtTest>

using MediaV2::CachingGStreamerWrapper;
using MediaV2::GStreamerPlayer;
using MediaV2::MediaPlaybackMetadata;

namespace {

// Generous: under the sanitizers, with other suites running, everything is several times slower.
const int kWaitMs = 60000;

} // namespace

class TestCachingWrapper : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void choosesTheSource_data();
    void choosesTheSource();
    void failedDownloadStopsTheEngine_data();
    void failedDownloadStopsTheEngine();

private:
    MediaPlaybackMetadata item(const QString& path, const QString& key) const;

    QTemporaryDir mDir;
    TestHttpServer mServer;
    QString mMp3;
    std::unique_ptr<CachingGStreamerWrapper> mWrapper;
};

void TestCachingWrapper::initTestCase()
{
    QString error;
    mMp3 = SteppedTone::file(SteppedTone::Format::Mp3, 3, &error);
    QVERIFY2(!mMp3.isEmpty(), qPrintable(error));
    QFile file(mMp3);
    QVERIFY(file.open(QIODevice::ReadOnly));
    TestHttpResource resource;
    resource.body = file.readAll();
    mServer.setResource(QStringLiteral("/item.mp3"), resource);
    TestHttpResource radio;
    radio.icy = true;
    radio.body = resource.body;
    mServer.setResource(QStringLiteral("/radio"), radio);
    QVERIFY(mServer.start());
    setConfig("storage/media_cache_folder", mDir.filePath(QStringLiteral("media")));
    setConfig("mediaserver/stream_cache_db_file", mDir.filePath(QStringLiteral("cache/stream_cache.db")));
    setConfig("mediaserver/stream_cache_required_free_disk_space_mb", 0);
    setConfig("media_buffer/initial_threshold_bytes", 1000);
    setConfig("gstreamer/audio_sink", QStringLiteral("fakesink sync=false"));
    mWrapper = std::make_unique<CachingGStreamerWrapper>();
}

MediaPlaybackMetadata TestCachingWrapper::item(const QString& path, const QString& key) const
{
    MediaPlaybackMetadata metadata;
    metadata.url = path == QLatin1String("<mp3>") ? mMp3 : mServer.url(path).toString();
    metadata.cacheKey = key;
    return metadata;
}

// Each item's source, seen in the URL the engine is given and the wrapper's log line.
void TestCachingWrapper::choosesTheSource_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("key");
    QTest::addColumn<bool>("live");
    QTest::addColumn<bool>("allowFifo");
    QTest::addColumn<bool>("shouldCache");
    QTest::addColumn<QString>("engineUrl");   // "<buffer>" for the disk buffer's file
    QTest::addColumn<QString>("logLine");
    const QString direct = QStringLiteral("not a live stream, and can't cache -> NOT using streaming media buffer");
    const QString buffered = QStringLiteral("not live stream, can cache -> using streaming media buffer");
    QTest::newRow("live through the FIFO") << "/radio" << "" << true << true << false << "appsrc://" << "live stream -> using FIFO";
    QTest::newRow("live without the FIFO, no key") << "/radio" << "" << true << false << false << "<url>" << direct;
    QTest::newRow("no key: the URL itself") << "/item.mp3" << "" << false << true << false << "<url>" << direct;
    QTest::newRow("a path: a local file") << "<mp3>" << "" << false << false << false << "<file>" << direct;
    QTest::newRow("key, not to be cached") << "/item.mp3" << "nocache" << false << false << false << "<buffer>" << buffered;
    QTest::newRow("key, not in the cache yet") << "/item.mp3" << "fresh" << false << false << true << "<buffer>" << buffered;
}

void TestCachingWrapper::choosesTheSource()
{
    QFETCH(QString, path);
    QFETCH(QString, key);
    QFETCH(bool, live);
    QFETCH(bool, allowFifo);
    QFETCH(bool, shouldCache);
    QFETCH(QString, engineUrl);
    QFETCH(QString, logLine);
    setConfig("media_buffer/allow_fifo", allowFifo);
    MediaPlaybackMetadata current = item(path, key);
    current.liveStream = live;
    current.shouldCache = shouldCache;
    LogCapture log;
    QVERIFY(mWrapper->setMedia(current, MediaPlaybackMetadata()));
    QTRY_VERIFY_WITH_TIMEOUT(log.hasLineContaining(logLine), kWaitMs);
    QUrl expected(engineUrl);
    if (engineUrl == QLatin1String("<url>"))
        expected = QUrl(current.url);
    else if (engineUrl == QLatin1String("<file>"))
        expected = QUrl::fromLocalFile(mMp3);
    if (engineUrl == QLatin1String("<buffer>")) {
        QVERIFY(mWrapper->mediaBuffer());
        expected = QUrl::fromLocalFile(mWrapper->mediaBuffer()->cacheFile());
    }
    QTRY_COMPARE_WITH_TIMEOUT(mWrapper->getCurrentUrl(), expected, kWaitMs);
    mWrapper->stop();
}

// A download that fails stops the engine in the error state that says how.
void TestCachingWrapper::failedDownloadStopsTheEngine_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("engineState");
    QTest::newRow("not found") << 404 << int(GStreamerPlayer::Error);
    QTest::newRow("forbidden") << 403 << int(GStreamerPlayer::ErrorForbidden);
}

void TestCachingWrapper::failedDownloadStopsTheEngine()
{
    QFETCH(int, status);
    QFETCH(int, engineState);
    TestHttpResource refused;
    refused.status = status;
    refused.body = "no";
    const QString path = QStringLiteral("/refused-%1").arg(status);
    mServer.setResource(path, refused);
    setConfig("media_buffer/download_retries", 0);
    MediaPlaybackMetadata current = item(path, path);
    QVERIFY(mWrapper->setMedia(current, MediaPlaybackMetadata()));
    QTRY_COMPARE_WITH_TIMEOUT(int(mWrapper->getState()), engineState, kWaitMs);
}

QTEST_GUILESS_MAIN(TestCachingWrapper)
#include "tst_caching_wrapper.moc"
