// The source-selection wrapper with the real engine (to a silent sink or a WAV file), the
// loopback server, real disk buffers and a real stream cache in a temporary folder: which source
// each item gets, a growing file played whole through underruns, the resume rules, the cache
// hit and its counting rule, how a failed download ends the item, and the tear-down of an
// item's downloads.

#include "media_server/CachingGStreamerWrapper.h"
#include "media_server/GStreamerServerPlayer.h"
#include "media_server/MediaServerDataValues.h"
#include "media_server/StreamCache.h"
#include "media_server/StreamCacheLocation.h"
#include "media_server/StreamingMediaPreloader.h"
#include "platform/config/ConfigStore.h"
#include "tests/support/TestConfig.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestHttpServer.h"
#include "tests/support/WavReader.h"

#include <QDateTime>
#include <QPointer>
#include <QTemporaryDir>
#include <QtTest>

using MediaV2::CachingGStreamerWrapper;
using MediaV2::GStreamerPlayer;
using MediaV2::GStreamerServerPlayer;
using MediaV2::MediaPlaybackMetadata;
using MediaV2::StreamingMediaBuffer;

namespace {

// Generous: under the sanitizers, with other suites running, everything is several times slower.
const int kWaitMs = 60000;
// Items played in real time take their length, pauses included, on top of that.
const int kPlayWaitMs = 180000;
// MP3 at 128 kbit/s: bytes per second of audio.
const qint64 kMp3BytesPerSecond = 16000;

} // namespace

class TestCachingWrapper : public QObject
{
    Q_OBJECT

    QTemporaryDir mDir;
    TestHttpServer mServer;
    QString mMp3;
    std::unique_ptr<CachingGStreamerWrapper> mWrapper;

    // A wrapper whose engine renders to `sink`; the previous one (and its cache thread) goes first.
    void renewWrapper(const QString& sink)
    {
        mWrapper.reset();
        setConfig("gstreamer/audio_sink", sink);
        mWrapper = std::make_unique<CachingGStreamerWrapper>();
    }

    void serve(const QString& path, const QString& file, qint64 bytesPerSecond)
    {
        TestHttpResource resource;
        resource.body = fileContents(file);
        resource.bytesPerSecond = bytesPerSecond;
        mServer.setResource(path, resource);
    }

    // Every call already queued to the stream cache has run, and its answer has been delivered.
    void waitForTheCache()
    {
        QVERIFY(QMetaObject::invokeMethod(mWrapper->streamCache(), [] {}, Qt::BlockingQueuedConnection));
        QCoreApplication::sendPostedEvents();
    }

    MediaPlaybackMetadata item(const QString& path, const QString& key) const
    {
        MediaPlaybackMetadata metadata;
        metadata.url = path == QLatin1String("<mp3>") ? mMp3 : mServer.url(path).toString();
        metadata.cacheKey = key;
        return metadata;
    }

private slots:
    void initTestCase()
    {
        QString error;
        mMp3 = SteppedTone::file(SteppedTone::Format::Mp3, 3, &error);
        QVERIFY2(!mMp3.isEmpty(), qPrintable(error));
        serve(QStringLiteral("/item.mp3"), mMp3, 0);
        TestHttpResource radio;
        radio.icy = true;
        radio.body = fileContents(mMp3);
        mServer.setResource(QStringLiteral("/radio"), radio);
        QVERIFY(mServer.start());
    }

    void init()
    {
        ConfigStore::instance()->clearOverrides();
        setConfig("storage/media_cache_folder", mDir.filePath(QStringLiteral("media")));
        setConfig("mediaserver/stream_cache_db_file", mDir.filePath(QStringLiteral("cache/stream_cache.db")));
        setConfig("mediaserver/stream_cache_required_free_disk_space_mb", 0);
        // Prompt position reports keep the underrun checks close to the audio.
        setConfig("gstreamer/bus_poll_interval", 20);
        setConfig("gstreamer/progress_poll_interval", 50);
        if (!mWrapper)
            renewWrapper(QStringLiteral("fakesink sync=true"));
    }

    // Each item's source, seen in the URL the engine is given and the wrapper's log line.
    void choosesTheSource_data()
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

    void choosesTheSource()
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

    // A fetch the server refuses stops the engine in its error state. (Forbidden and timed-out
    // fetches are met with their published errors in the server and fault suites.)
    void failedDownloadStopsTheEngine()
    {
        TestHttpResource refused;
        refused.status = 404;
        refused.body = fileContents(mMp3);
        mServer.setResource(QStringLiteral("/refused"), refused);
        setConfig("media_buffer/download_retries", 0);
        QVERIFY(mWrapper->setMedia(item(QStringLiteral("/refused"), QStringLiteral("refused")), MediaPlaybackMetadata()));
        QTRY_COMPARE_WITH_TIMEOUT(mWrapper->getState(), GStreamerPlayer::Error, kWaitMs);
    }

    // Played from the growing file with the default thresholds while the download runs slower than
    // real time, or from a start position not downloaded yet: every second from the start position
    // on, once and in order; paused before the download ran dry (or held at the start position) and
    // resumed by itself; no early end.
    void playsAGrowingFileWhole_data()
    {
        QTest::addColumn<qint64>("bytesPerSecond");
        QTest::addColumn<int>("seconds");
        QTest::addColumn<int>("startSecond");
        // 10 s of audio buffered before playback and 0.7x after it: the underrun comes at 16.7 s.
        QTest::newRow("downloaded at 0.7x real time") << kMp3BytesPerSecond * 7 / 10 << 24 << 0;
        // Loaded with 10 s on disk: 12 s is beyond what the engine can know of yet.
        QTest::newRow("started at 12 s, before the download has it") << kMp3BytesPerSecond << 16 << 12;
    }

    void playsAGrowingFileWhole()
    {
        QFETCH(qint64, bytesPerSecond);
        QFETCH(int, seconds);
        QFETCH(int, startSecond);
        QString error;
        const QString mp3 = SteppedTone::file(SteppedTone::Format::Mp3, seconds, &error);
        QVERIFY2(!mp3.isEmpty(), qPrintable(error));
        TestHttpResource resource;
        resource.body = fileContents(mp3);
        resource.bytesPerSecond = bytesPerSecond;
        const QString path = QStringLiteral("/growing-%1").arg(QTest::currentDataTag()[0]);
        mServer.setResource(path, resource);
        const QString wav = mDir.filePath(QStringLiteral("growing-%1.wav").arg(QTest::currentDataTag()[0]));
        renewWrapper(QStringLiteral("audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1 ! "
                                    "wavenc ! filesink location=%1 sync=true").arg(wav));
        MediaPlaybackMetadata current = item(path, path);
        current.shouldCache = true;
        current.duration = seconds * 1000;
        LogCapture log;
        QVERIFY(mWrapper->setMedia(current, MediaPlaybackMetadata()));
        QTRY_COMPARE_WITH_TIMEOUT(mWrapper->getMediaStatus(), GStreamerPlayer::Loaded, kWaitMs);
        QVERIFY(mWrapper->mediaBuffer()->state() != StreamingMediaBuffer::Finished);
        QVERIFY(mWrapper->play(startSecond * 1000));
        QTRY_COMPARE_WITH_TIMEOUT(mWrapper->getMediaStatus(), GStreamerPlayer::EndOfMedia, kPlayWaitMs);
        renewWrapper(QStringLiteral("fakesink sync=true"));   // finalises the WAV
        QCOMPARE(WavReader::steppedSecondsIn(wav), WavReader::secondsFromTo(startSecond, seconds - 1));
        const int holds = log.lines().filter(QStringLiteral("not downloaded yet, waiting for it")).size();
        const int pauses = log.lines().filter(QStringLiteral("Buffer underrun, pausing")).size() + holds;
        QCOMPARE(holds, startSecond > 0 ? 1 : 0);
        QVERIFY(pauses >= 1);
        QCOMPARE(log.lines().filter(QStringLiteral("resuming playback")).size(), pauses);
    }

    // Paused for an underrun with thresholds no download reaches: the end of the download resumes
    // playback, unless the client stopped it meanwhile.
    void resumesOnlyWhenItShould_data()
    {
        QTest::addColumn<bool>("stopDuringUnderrun");
        QTest::addColumn<int>("finalState");
        QTest::newRow("the download ends during the underrun") << false << int(GStreamerPlayer::Playing);
        QTest::newRow("stopped during the underrun") << true << int(GStreamerPlayer::Stopped);
    }

    void resumesOnlyWhenItShould()
    {
        QFETCH(bool, stopDuringUnderrun);
        QFETCH(int, finalState);
        const QString path = QStringLiteral("/underrun-%1").arg(stopDuringUnderrun);
        serve(path, mMp3, kMp3BytesPerSecond * 2);
        setConfig("media_buffer/initial_threshold_bytes", kMp3BytesPerSecond);
        setConfig("media_buffer/underrun_threshold_ms", 1000000);
        setConfig("media_buffer/resume_play_threshold_ms", 2000000);
        MediaPlaybackMetadata current = item(path, path);
        current.duration = 3000;
        LogCapture log;
        QVERIFY(mWrapper->setMedia(current, MediaPlaybackMetadata()));
        QTRY_COMPARE_WITH_TIMEOUT(mWrapper->getMediaStatus(), GStreamerPlayer::Loaded, kWaitMs);
        QVERIFY(mWrapper->play(0));
        QTRY_VERIFY_WITH_TIMEOUT(log.hasLineContaining(QStringLiteral("Buffer underrun, pausing")), kWaitMs);
        if (stopDuringUnderrun)
            QVERIFY(mWrapper->stop());
        QTRY_COMPARE_WITH_TIMEOUT(mWrapper->mediaBuffer()->state(), StreamingMediaBuffer::Finished, kWaitMs);
        QCOMPARE(int(mWrapper->getState()), finalState);
        mWrapper->stop();
    }

    // The cache's answer about an item replaced before it came is not taken for the new item: a
    // cached item keeps playing from the cache, complete at once, with no download beside it.
    // (Preloading the next item is met in the server suite; a next item without a URL fetches
    // nothing.)
    void dropsTheAnswerForAReplacedItem()
    {
        MediaPlaybackMetadata cached = item(QStringLiteral("/item.mp3"), QStringLiteral("replaced-cached"));
        cached.shouldCache = true;
        MediaPlaybackMetadata nextWithoutUrl = item(QStringLiteral("/item.mp3"), QStringLiteral("no-url"));
        nextWithoutUrl.url.clear();
        setConfig("mediaserver/stream_cache_debug_log", true);   // the cache's "stored KEY" lines
        LogCapture log;
        QVERIFY(mWrapper->setMedia(cached, nextWithoutUrl));
        QTRY_VERIFY_WITH_TIMEOUT(log.hasLineContaining(QStringLiteral("stored ") + cached.cacheKey), kWaitMs);
        waitForTheCache();
        QVERIFY(!mWrapper->preloader());
        MediaPlaybackMetadata uncached = item(QStringLiteral("/item.mp3"), QStringLiteral("replaced-uncached"));
        uncached.shouldCache = true;
        QVERIFY(mWrapper->setMedia(uncached, MediaPlaybackMetadata()));
        QSignalSpy progress(mWrapper.get(), &CachingGStreamerWrapper::bufferProgress);
        QVERIFY(mWrapper->setMedia(cached, MediaPlaybackMetadata()));
        waitForTheCache();
        QVERIFY(log.hasLineContaining(QStringLiteral("Cached in StreamCache, playing from")));
        QVERIFY(!mWrapper->mediaBuffer());
        QVERIFY(mWrapper->getCurrentUrl().toLocalFile().startsWith(MediaV2::StreamCacheLocation::streamFolder()));
        const qint64 size = QFileInfo(mMp3).size();
        QCOMPARE(progress.last(), (QList<QVariant>{1.0, size, size}));
    }

    // A cache hit counts as one only when the entry was idle longer than the threshold (600 s).
    void countsACacheHitAfterTheIdleTime_data()
    {
        QTest::addColumn<qint64>("idleSeconds");
        QTest::addColumn<bool>("counted");
        QTest::newRow("used 600 s ago") << qint64(600) << false;
        QTest::newRow("used 601 s ago") << qint64(601) << true;
    }

    void countsACacheHitAfterTheIdleTime()
    {
        QFETCH(qint64, idleSeconds);
        QFETCH(bool, counted);
        MEDIA2_streamCached.setValue(!counted);
        // The wrapper reads the clock itself: repeat when a second boundary fell in between.
        qint64 before = 0;
        do {
            before = QDateTime::currentSecsSinceEpoch();
            mWrapper->onStreamFileFound(true, mMp3, before - idleSeconds);
        } while (QDateTime::currentSecsSinceEpoch() != before);
        QCOMPARE(MEDIA2_streamCached.value(), counted);
    }

    // A new item ends the previous item's download and preload: their connections close and the
    // objects are gone.
    void newItemTearsDownTheOldDownloads_data()
    {
        QTest::addColumn<bool>("preloading");
        QTest::newRow("while the item downloads") << false;
        QTest::newRow("while the next item preloads") << true;
    }

    void newItemTearsDownTheOldDownloads()
    {
        QFETCH(bool, preloading);
        const QString slow = QStringLiteral("/slow-%1").arg(preloading);
        serve(slow, mMp3, 2000);
        MediaPlaybackMetadata current = item(preloading ? QStringLiteral("/item.mp3") : slow, QStringLiteral("torn-current-") + slow);
        MediaPlaybackMetadata next = item(slow, QStringLiteral("torn-next-") + slow);
        QSignalSpy closed(&mServer, &TestHttpServer::connectionClosed);
        QVERIFY(mWrapper->setMedia(current, next));
        QTRY_VERIFY_WITH_TIMEOUT(mServer.bytesSent(slow) > 0, kWaitMs);
        QPointer<StreamingMediaBuffer> download = preloading ? mWrapper->preloader() : mWrapper->mediaBuffer();
        QVERIFY(download);
        QVERIFY(mWrapper->setMedia(item(QStringLiteral("/item.mp3"), QString()), MediaPlaybackMetadata()));
        QTRY_VERIFY_WITH_TIMEOUT(closed.contains(QList<QVariant>{slow}), kWaitMs);
        QTRY_VERIFY_WITH_TIMEOUT(!download, kWaitMs);
        QVERIFY(!mWrapper->mediaBuffer() && !mWrapper->preloader());
    }

    // The server player: a play asked for while the item loads is answered at once and carried
    // out once it has loaded, without a second answer, which a later request would take for its
    // own.
    void heldPlayIsAnsweredOnce()
    {
        mWrapper.reset();   // one engine and one cache thread at a time
        serve(QStringLiteral("/held.mp3"), mMp3, 16000);   // three seconds of loading
        GStreamerServerPlayer player;
        QSignalSpy answers(&player, &GStreamerServerPlayer::playComplete);
        MediaPlaybackMetadata held = item(QStringLiteral("/held.mp3"), QStringLiteral("held"));
        held.valid = true;
        player.loadMedia(held, MediaPlaybackMetadata());
        QTRY_COMPARE_WITH_TIMEOUT(player.currentState(), MediaV2::Loading, kWaitMs);
        player.play(0);
        QCOMPARE(answers.count(), 1);
        QTRY_COMPARE_WITH_TIMEOUT(player.currentState(), MediaV2::Playing, kWaitMs);
        QCOMPARE(answers.count(), 1);
        QCOMPARE(answers.first().value(0), QVariant(true));
        player.stop();
    }
};

QTEST_GUILESS_MAIN(TestCachingWrapper)
#include "tst_caching_wrapper.moc"
