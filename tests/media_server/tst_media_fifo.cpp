// The live-stream FIFO against the loopback server's endless ICY streams, through a real
// playbin3 "appsrc://" pipeline recorded to a WAV file: titles, the tone second by second
// (a stream served as PCM shows any stray block byte as noise), the buffering hysteresis and
// the full ring on a bare appsrc, the end of a station (the engine's live end of stream), and
// deleting FIFOs while data flows.

#include "media_server/GStreamerMediaFIFO.h"
#include "media_server/GStreamerPlayer.h"
#include "tests/support/TestConfig.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestHttpServer.h"
#include "tests/support/WavReader.h"

#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <memory>

using MediaV2::GStreamerMediaFIFO;
using MediaV2::GStreamerPlayer;
using MediaV2::MediaPlaybackMetadata;

namespace {

const int kToneSeconds = 20;
const qint64 kPcmRate = 2 * SteppedTone::kSampleRate;   // bytes per second of the mono 16-bit tone
// Generous: under the sanitizers, with other suites running, everything is several times slower.
const int kWaitMs = 60000;

MediaPlaybackMetadata liveItem(const QUrl& url)
{
    MediaPlaybackMetadata item;
    item.url = url.toString();
    item.liveStream = true;
    return item;
}

TestHttpResource station(const QByteArray& audio, qint64 bytesPerSecond, int metaInt)
{
    TestHttpResource resource;
    resource.icy = true;
    resource.body = audio;
    resource.bytesPerSecond = bytesPerSecond;
    resource.icyMetaInt = metaInt;
    // An empty title between two: it changes nothing and is not reported.
    resource.icyTitles = QStringList{QStringLiteral("one"), QString(), QStringLiteral("two")};
    resource.icyTitleSeconds = 1;
    return resource;
}

// Counts the bytes an element's source pad passes downstream, and sees its end of stream (on
// the streaming thread).
struct PassedBytes {
    std::atomic<qint64> bytes{0};
    std::atomic<bool> endOfStream{false};

    void watch(GstElement* element)
    {
        GstPad* pad = gst_element_get_static_pad(element, "src");
        gst_pad_add_probe(pad, GstPadProbeType(GST_PAD_PROBE_TYPE_BUFFER | GST_PAD_PROBE_TYPE_EVENT_DOWNSTREAM),
                          &PassedBytes::counted, this, nullptr);
        gst_object_unref(pad);
    }
    static GstPadProbeReturn counted(GstPad*, GstPadProbeInfo* info, gpointer self)
    {
        auto* passed = static_cast<PassedBytes*>(self);
        if (info->type & GST_PAD_PROBE_TYPE_BUFFER)
            passed->bytes += qint64(gst_buffer_get_size(GST_PAD_PROBE_INFO_BUFFER(info)));
        else if (GST_EVENT_TYPE(GST_PAD_PROBE_INFO_EVENT(info)) == GST_EVENT_EOS)
            passed->endOfStream = true;
        return GST_PAD_PROBE_OK;
    }
};

// A FIFO feeding a player that records to a WAV file, wired as the server wires them.
struct LivePlayback {
    std::unique_ptr<GStreamerPlayer> player;
    std::unique_ptr<GStreamerMediaFIFO> fifo;
    QStringList titles;
    GstElement* source = nullptr;   // the appsrc, referenced
    PassedBytes passed;

    LivePlayback(const QUrl& url, const QString& wav)
    {
        setConfig("gstreamer/audio_sink", QStringLiteral("audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1 ! "
                                                         "wavenc ! filesink location=%1 sync=false").arg(wav));
        player = std::make_unique<GStreamerPlayer>();
        fifo = std::make_unique<GStreamerMediaFIFO>(liveItem(url));
        QObject::connect(player.get(), &GStreamerPlayer::newSourceElement, fifo.get(), &GStreamerMediaFIFO::playerHasNewSourceElement);
        QObject::connect(player.get(), &GStreamerPlayer::newSourceElement, player.get(), [this](GstElement* element) {
            source = GST_ELEMENT(gst_object_ref(element));
            passed.watch(source);
        });
        // Title changes only: the station's bit rate is announced through the same signal.
        QObject::connect(fifo.get(), &GStreamerMediaFIFO::metadataChanged, fifo.get(), [this] {
            const QString title = fifo->getAvailableMetadata().title;
            if (!title.isEmpty() && (titles.isEmpty() || titles.last() != title))
                titles.append(title);
        });
        fifo->start();
        player->setMedia(QUrl(QStringLiteral("appsrc://")), true);
        player->play(0, false);
    }
    // The player first: its pipeline holds the appsrc, and the WAV is finalised.
    void finish()
    {
        player.reset();
        fifo.reset();
        if (source)
            gst_object_unref(source);
        source = nullptr;
    }
};

// A bare appsrc in "appsrc ! fakesink", to see exactly what the FIFO pushes.
class BareAppSrc
{
public:
    BareAppSrc()
    {
        mPipeline = gst_parse_launch("appsrc name=src ! fakesink sync=false", nullptr);
        mSource = gst_bin_get_by_name(GST_BIN(mPipeline), "src");
        mPassed.watch(mSource);
    }
    ~BareAppSrc()
    {
        gst_element_set_state(mPipeline, GST_STATE_NULL);
        gst_object_unref(mSource);
        gst_object_unref(mPipeline);
    }
    GstElement* source() const { return mSource; }
    void play() { gst_element_set_state(mPipeline, GST_STATE_PLAYING); }
    // Bytes pushed so far: those passed downstream plus those still queued in the appsrc.
    qint64 pushed() const
    {
        guint64 queued = 0;
        g_object_get(mSource, "current-level-bytes", &queued, nullptr);
        return qint64(queued) + mPassed.bytes.load();
    }
    bool endOfStream() const { return mPassed.endOfStream; }

private:
    GstElement* mPipeline = nullptr;
    GstElement* mSource = nullptr;
    PassedBytes mPassed;
};

} // namespace

class TestMediaFIFO : public QObject
{
    Q_OBJECT

    TestHttpServer mServer;
    QTemporaryDir mDir;
    QByteArray mPcm;
    QByteArray mMp3;

    // A FIFO whose download never sends anything, so a test feeds the chunks itself.
    std::unique_ptr<GStreamerMediaFIFO> silentFifo()
    {
        auto fifo = std::make_unique<GStreamerMediaFIFO>(liveItem(mServer.url(QStringLiteral("/silent"))));
        fifo->urlResolved(mServer.url(QStringLiteral("/silent")).toString(), mServer.url(QStringLiteral("/silent")).toString());
        return fifo;
    }

private slots:
    void initTestCase()
    {
        gst_init(nullptr, nullptr);
        QVERIFY(mServer.start());
        QString error;
        const QString wav = SteppedTone::file(SteppedTone::Format::Wav, kToneSeconds, &error);
        const QString mp3 = SteppedTone::file(SteppedTone::Format::Mp3, kToneSeconds, &error);
        QVERIFY2(!wav.isEmpty() && !mp3.isEmpty(), qPrintable(error));
        mPcm = fileContents(wav);
        mMp3 = fileContents(mp3);
        TestHttpResource silent;
        silent.icy = true;
        silent.stallAfter = 0;
        mServer.setResource(QStringLiteral("/silent"), silent);
    }

    void init()
    {
        setConfig("media_fifo/ring_buffer_size", 1048576);
        setConfig("media_fifo/buffer_size", 51200);
    }

    // Each station is heard from its first second on, every second once and in order, with the
    // titles as the station sends them. PCM streams are served at twice real time to keep the test
    // short; the pipeline records as fast as it receives.
    void playsAStation_data()
    {
        QTest::addColumn<bool>("mp3");
        QTest::addColumn<bool>("icyStatusLine");
        QTest::addColumn<int>("metaInt");
        QTest::addColumn<bool>("behindPlaylist");
        QTest::newRow("ICY 200 OK, MP3") << true << true << 8000 << false;
        QTest::newRow("HTTP 1.0 status line") << false << false << 7777 << false;
        QTest::newRow("behind a playlist") << false << true << 8000 << true;
        QTest::newRow("no titles asked for") << false << true << 0 << false;
    }

    void playsAStation()
    {
        QFETCH(bool, mp3);
        QFETCH(bool, icyStatusLine);
        QFETCH(int, metaInt);
        QFETCH(bool, behindPlaylist);
        const QString path = QStringLiteral("/station-%1").arg(QTest::currentDataTag()).replace(QLatin1Char(' '), QLatin1Char('-'));
        TestHttpResource resource = station(mp3 ? mMp3 : mPcm, mp3 ? 32000 : 2 * kPcmRate, metaInt);
        resource.icyStatusLine = icyStatusLine;
        mServer.setResource(path, resource);
        QUrl url = mServer.url(path);
        if (behindPlaylist) {
            // The lowest FileN is neither the first entry nor the last.
            TestHttpResource playlist;
            playlist.body = "[playlist]\nFile3=" + mServer.url(QStringLiteral("/gone")).toEncoded() + "\nFile1="
                + url.toEncoded() + "\nFile2=" + mServer.url(QStringLiteral("/gone")).toEncoded() + "\nNumberOfEntries=3\n";
            mServer.setResource(QStringLiteral("/radio.pls"), playlist);
            url = mServer.url(QStringLiteral("/radio.pls"));
        }
        const QString wav = mDir.filePath(path.mid(1) + QStringLiteral(".wav"));
        LivePlayback live(url, wav);
        const qint64 fiveSeconds = 5 * (mp3 ? 16000 : kPcmRate);
        QTRY_VERIFY_WITH_TIMEOUT(mServer.bytesSent(path) > fiveSeconds && (metaInt == 0 || live.titles.size() >= 2), kWaitMs);
        QCOMPARE(live.player->getState(), GStreamerPlayer::Playing);
        live.finish();
        const QStringList expectedTitles = metaInt == 0 ? QStringList() : QStringList{QStringLiteral("one"), QStringLiteral("two")};
        QCOMPARE(live.titles.mid(0, 2), expectedTitles);
        WavReader reader;
        QVERIFY(reader.load(wav));
        const QList<int> seconds = reader.steppedSeconds();
        QVERIFY2(seconds.size() >= 3, qPrintable(QStringLiteral("%1 seconds recorded").arg(seconds.size())));
        QCOMPARE(seconds, WavReader::secondsFromTo(0, int(seconds.size()) - 1));
    }

    // After a need-data, 16 KiB chunks are held until more than 51200 bytes are queued (the fourth
    // chunk), then pushed in one buffer; after enough-data nothing is pushed until the next
    // need-data, which pushes what is queued once and holds back again.
    void holdsBackUntilBuffered()
    {
        BareAppSrc appsrc;
        auto fifo = silentFifo();
        fifo->playerHasNewSourceElement(appsrc.source());
        const QByteArray chunk(16384, 'a');
        fifo->needData(4096);
        for (int i = 0; i < 3; ++i)
            fifo->dataAvailable(chunk);
        QCOMPARE(appsrc.pushed(), qint64(0));
        fifo->dataAvailable(chunk);
        QCOMPARE(appsrc.pushed(), qint64(65536));
        fifo->enoughData();
        fifo->dataAvailable(chunk);
        fifo->dataAvailable(chunk);
        QCOMPARE(appsrc.pushed(), qint64(65536));
        fifo->needData(4096);
        QCOMPARE(appsrc.pushed(), qint64(98304));
        fifo->dataAvailable(chunk);
        QCOMPARE(appsrc.pushed(), qint64(98304));
    }

    // The ring never fills to its last byte: the chunk that would is dropped whole, with one
    // assertion, and the stream goes on with the next chunk that fits.
    void fullRingDropsTheChunk()
    {
        setConfig("media_fifo/ring_buffer_size", 65536);
        setConfig("media_fifo/buffer_size", 1000000);   // never pushed by arriving data
        BareAppSrc appsrc;
        appsrc.play();
        auto fifo = silentFifo();
        LogCapture log;
        for (int i = 0; i < 3; ++i)
            fifo->dataAvailable(QByteArray(16384, 'a'));
        fifo->dataAvailable(QByteArray(16384, 'b'));
        QCOMPARE(log.assertMessages(), QStringList{QStringLiteral("failed to queue 16384 bytes in ring buffer")});
        fifo->dataAvailable(QByteArray(16383, 'c'));
        QCOMPARE(log.assertMessages().size(), 1);
        fifo->playerHasNewSourceElement(appsrc.source());
        fifo->needData(4096);
        QTRY_COMPARE_WITH_TIMEOUT(appsrc.pushed(), qint64(3 * 16384 + 16383), kWaitMs);
    }

    // The station ended before the pipeline's source was handed over, and that source had already
    // asked for data: it still gets every byte that arrived, then its end of stream.
    void lateAppSrcGetsWhatIsLeft()
    {
        TestHttpResource resource = station(mPcm, 0, 0);
        resource.bytesPerSecond = 1000000;
        resource.closeAfter = 8192;
        mServer.setResource(QStringLiteral("/short"), resource);
        GStreamerMediaFIFO fifo(liveItem(mServer.url(QStringLiteral("/short"))));
        LogCapture log;
        fifo.start();
        BareAppSrc appsrc;
        appsrc.play();
        QTRY_VERIFY_WITH_TIMEOUT(log.hasLineContaining(QStringLiteral("the stream ended")), kWaitMs);
        fifo.playerHasNewSourceElement(appsrc.source());
        QTRY_VERIFY_WITH_TIMEOUT(appsrc.endOfStream(), kWaitMs);
        QCOMPARE(appsrc.pushed(), qint64(8192));
    }

    // A station that stops sending, or was never there, leaves Playing for the engine's error
    // state once what was received has played: never silence that claims to be playing.
    void stationThatEndsIsAnError_data()
    {
        QTest::addColumn<qint64>("closeAfter");
        QTest::addColumn<int>("status");
        QTest::newRow("connection closed after 2 s") << 2 * kPcmRate << 200;
        QTest::newRow("not found") << qint64(-1) << 404;
    }

    void stationThatEndsIsAnError()
    {
        QFETCH(qint64, closeAfter);
        QFETCH(int, status);
        TestHttpResource resource = station(mPcm, 2 * kPcmRate, 8000);
        resource.closeAfter = closeAfter;
        if (status != 200) {
            resource = TestHttpResource();
            resource.status = status;
            resource.body = "no such station";
        }
        mServer.setResource(QStringLiteral("/ends"), resource);
        const QString wav = mDir.filePath(QStringLiteral("ends.wav"));
        LivePlayback live(mServer.url(QStringLiteral("/ends")), wav);
        QTRY_COMPARE_WITH_TIMEOUT(live.player->getState(), GStreamerPlayer::Error, kWaitMs);
        // A live end of stream is no end of media, and the pipeline of a station that played
        // keeps running for the next item to replace.
        QVERIFY(live.player->getMediaStatus() != GStreamerPlayer::EndOfMedia);
        GstState state = GST_STATE_NULL;
        gst_element_get_state(live.player->pipeline(), &state, nullptr, 0);
        QVERIFY2(closeAfter < 0 || state == GST_STATE_PLAYING, gst_element_state_get_name(state));
        live.finish();
        if (closeAfter < 0)
            return;
        WavReader reader;
        QVERIFY(reader.load(wav));
        QCOMPARE(reader.steppedSeconds(), WavReader::secondsFromTo(0, 1));
    }

    // GStreamer's streaming thread keeps asking a FIFO for data while the main thread stops and
    // deletes it; the pipeline outlives the FIFO each time, and is fed a little silence by hand
    // afterwards: each time the appsrc runs dry again it asks the deleted FIFO for more. Run under
    // the sanitizers, this is where a callback reaching a freed FIFO would show.
    void deletedWhileDataFlows()
    {
        mServer.setResource(QStringLiteral("/flowing"), station(mPcm, 4 * kPcmRate, 8000));
        setConfig("media_fifo/buffer_size", 4096);
        LogCapture log;
        QStringList asserts;
        for (int round = 0; round < 20; ++round) {
            LivePlayback live(mServer.url(QStringLiteral("/flowing")), mDir.filePath(QStringLiteral("flowing.wav")));
            asserts += log.assertMessages();
            log.clear();
            QTRY_VERIFY_WITH_TIMEOUT(log.hasLineContaining(QStringLiteral("finished buffering")), kWaitMs);
            QTRY_VERIFY_WITH_TIMEOUT(log.lines().filter(QStringLiteral("needData(")).size() > round % 4, kWaitMs);
            live.fifo->stop();
            live.fifo.reset();
            for (int i = 0; i < 3; ++i) {
                const qint64 before = live.passed.bytes;
                GstBuffer* silence = gst_buffer_new_and_alloc(4096);
                gst_buffer_memset(silence, 0, 0, 4096);
                QCOMPARE(gst_app_src_push_buffer(GST_APP_SRC(live.source), silence), GST_FLOW_OK);
                QTRY_VERIFY_WITH_TIMEOUT(live.passed.bytes > before, kWaitMs);
            }
            live.finish();
        }
        asserts += log.assertMessages();
        QCOMPARE(asserts, QStringList());
    }
};

QTEST_GUILESS_MAIN(TestMediaFIFO)
#include "tst_media_fifo.moc"
