// The playback engine on real playbin3 pipelines with generated stepped-tone items, recording
// its output to a WAV file: what plays and from where, the state and media-status sequences,
// tags, the override URL, the sink fallback, the source element and the log bridge. Unplayable
// items, live end of stream and changing items are met through the FIFO and server suites.

#include "media_server/GStreamerPlayer.h"
#include "media_server/LogFunction.h"
#include "platform/config/ConfigStore.h"
#include "tests/support/TestConfig.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestHttpServer.h"
#include "tests/support/WavReader.h"

#include <QTemporaryDir>
#include <QtTest>

using MediaV2::GStreamerPlayer;

namespace {

const int kItemSeconds = 5;
// Generous: under the sanitizers, with other suites running, decoding is several times slower.
const int kEndTimeoutMs = 60000;

// A player whose audio goes to `wav`, in real time (synced) or as fast as the CPU allows.
std::unique_ptr<GStreamerPlayer> makePlayer(const QString& wav, bool realTime)
{
    setConfig("gstreamer/audio_sink", QStringLiteral("audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1 ! "
                                                     "wavenc ! filesink location=%1 sync=%2")
                                          .arg(wav, realTime ? QStringLiteral("true") : QStringLiteral("false")));
    return std::make_unique<GStreamerPlayer>();
}

// For a capture whose first moments may be muted, so that it starts inside a second: read in
// half-second windows (each second has a clean one), each second named once. The window in
// which the sound comes on may not be named.
QList<int> secondsHeardIn(const QString& wav)
{
    QList<int> seconds;
    for (int second : WavReader::steppedSecondsIn(wav, 0.5))
        if (seconds.isEmpty() ? second >= 0 : seconds.last() != second)
            seconds.append(second);
    return seconds;
}

// The first element in `bin` (at any depth) made by `factoryName`, or null; the caller unrefs.
GstElement* findByFactory(GstElement* bin, const char* factoryName)
{
    GstIterator* it = gst_bin_iterate_recurse(GST_BIN(bin));
    GValue item = G_VALUE_INIT;
    GstElement* found = nullptr;
    while (!found && gst_iterator_next(it, &item) == GST_ITERATOR_OK) {
        auto* element = GST_ELEMENT(g_value_get_object(&item));
        if (g_str_equal(GST_OBJECT_NAME(gst_element_get_factory(element)), factoryName))
            found = GST_ELEMENT(gst_object_ref(element));
        g_value_unset(&item);
    }
    gst_iterator_free(it);
    return found;
}

QList<int> stateSequence(const QSignalSpy& spy)
{
    QList<int> states;
    for (const QList<QVariant>& arguments : spy)
        states.append(arguments.first().toInt());
    return states;
}

QStringList errorMessages(const LogCapture& log)
{
    QStringList messages;
    for (const LogRecord& record : log.records())
        if (record.level == LogRecord::Error)
            messages.append(record.message);
    return messages;
}

// Where an item comes from: a local file, a URL that "gstreamer/override_url" replaces with the
// local file, or over HTTP without a length, which playbin3 reports as not seekable and of
// unknown duration.
enum class Item { LocalFile, Overridden, HttpWithoutLength };

} // namespace

Q_DECLARE_METATYPE(Item)

GST_DEBUG_CATEGORY_STATIC(sTestCategory);

class TestGStreamerPlayer : public QObject
{
    Q_OBJECT

    QTemporaryDir mDir;
    QString mMp3;
    TestHttpServer mServer;

private slots:
    void initTestCase()
    {
        QString error;
        mMp3 = SteppedTone::file(SteppedTone::Format::Mp3, kItemSeconds, &error);
        QVERIFY2(!mMp3.isEmpty(), qPrintable(error));
        QFile mp3(mMp3);
        QVERIFY(mp3.open(QIODevice::ReadOnly));
        TestHttpResource unseekable;
        unseekable.body = mp3.readAll();
        unseekable.contentType = "audio/mpeg";
        unseekable.contentLength = false;
        unseekable.acceptRanges = false;
        mServer.setResource(QStringLiteral("/unseekable.mp3"), unseekable);
        QVERIFY(mServer.start());
    }

    void init()
    {
        ConfigStore::instance()->clearOverrides();
        // Prompt bus reports keep the tests short.
        setConfig("gstreamer/bus_poll_interval", QStringLiteral("20"));
        setConfig("gstreamer/progress_poll_interval", QStringLiteral("50"));
    }

    void cleanupTestCase() { ConfigStore::instance()->clearOverrides(); }

    // Whatever the start position, an item the engine cannot seek as asked plays whole. (A start
    // the engine can seek to is heard from there in the server suite.)
    void playsFromAStartPosition_data()
    {
        QTest::addColumn<qint64>("startMs");
        QTest::addColumn<Item>("item");
        QTest::addColumn<QString>("refusal");   // the one error logged, empty for none
        QTest::newRow("a negative start plays from the start") << qint64(-500) << Item::LocalFile << QString();
        QTest::newRow("from the start, the override URL in place of the item") << qint64(0) << Item::Overridden << QString();
        QTest::newRow("beyond the end plays whole from the start")
            << qint64(60000) << Item::LocalFile << QStringLiteral("Seek position outside of seeking range. ");
        QTest::newRow("an unseekable item plays whole and heard from the start")
            << qint64(2000) << Item::HttpWithoutLength << QStringLiteral("Cannot seek, seek not enabled in this stream.");
    }

    void playsFromAStartPosition()
    {
        QFETCH(qint64, startMs);
        QFETCH(Item, item);
        QFETCH(QString, refusal);
        const QString wav = mDir.filePath(QStringLiteral("start%1-%2.wav").arg(startMs).arg(int(item)));
        if (item == Item::Overridden)
            setConfig("gstreamer/override_url", QUrl::fromLocalFile(mMp3).toString());
        // A start position is sought once the pipeline plays; an unsynced sink would have decoded
        // the whole item by then.
        auto player = makePlayer(wav, startMs >= 1);
        QSignalSpy states(player.get(), &GStreamerPlayer::stateChanged);
        QSignalSpy statuses(player.get(), &GStreamerPlayer::mediaStatusChanged);
        LogCapture log;
        const QUrl url = item == Item::LocalFile     ? QUrl::fromLocalFile(mMp3)
                         : item == Item::Overridden ? QUrl(QStringLiteral("http://127.0.0.1:9/never"))
                                                    : mServer.url(QStringLiteral("unseekable.mp3"));
        QVERIFY(player->setMedia(url, false));
        QCOMPARE(player->getCurrentUrl(), item == Item::Overridden ? QUrl::fromLocalFile(mMp3) : url);
        // An HTTP item may go on to buffer within the same poll of the bus.
        QTRY_VERIFY(stateSequence(statuses).contains(GStreamerPlayer::Loaded));
        // The listener's level holds through the mute of a start seek.
        const double level = 0.75;   // exact in the element's single precision
        player->setLevel(level);
        QVERIFY(player->play(startMs, false));
        QCOMPARE(player->volume(), startMs >= 1 ? 0.0 : level);
        QTRY_COMPARE_WITH_TIMEOUT(player->getMediaStatus(), GStreamerPlayer::EndOfMedia, kEndTimeoutMs);
        QCOMPARE(stateSequence(states), (QList<int>{GStreamerPlayer::Playing, GStreamerPlayer::Stopped}));
        // An HTTP item also buffers on the way.
        QList<int> sequence = stateSequence(statuses);
        sequence.removeIf([](int status) { return status == GStreamerPlayer::Buffering || status == GStreamerPlayer::Buffered; });
        QCOMPARE(sequence, (QList<int>{GStreamerPlayer::Loading, GStreamerPlayer::Loaded, GStreamerPlayer::EndOfMedia}));
        QCOMPARE(player->volume(), level);
        player.reset();   // finalises the WAV
        QCOMPARE(secondsHeardIn(wav), WavReader::secondsFromTo(0, kItemSeconds - 1));
        const QStringList errors = errorMessages(log);
        QVERIFY2(refusal.isEmpty() ? errors.isEmpty() : errors.size() == 1 && errors.first().startsWith(refusal),
                 qPrintable(errors.join(QLatin1Char('|'))));
    }

    // The end of a buffering run resumes an item that plays, never one the client paused.
    void endOfBufferingLeavesAPausedItemPaused()
    {
        auto player = makePlayer(mDir.filePath(QStringLiteral("buffering.wav")), true);
        QVERIFY(player->setMedia(QUrl::fromLocalFile(mMp3), false));
        QVERIFY(player->play(0, false));
        QTRY_VERIFY_WITH_TIMEOUT(player->getPosition() > 0, 10000);
        QVERIFY(player->pause(false));
        QSignalSpy progress(player.get(), &GStreamerPlayer::bufferProgress);
        GstElement* pipeline = player->pipeline();
        gst_element_post_message(pipeline, gst_message_new_buffering(GST_OBJECT(pipeline), 100));
        QVERIFY(progress.wait(10000));
        QCOMPARE(progress.first().first().toReal(), 1.0);
        // Waits for any state change the message caused to complete.
        GstState state = GST_STATE_NULL;
        QCOMPARE(gst_element_get_state(pipeline, &state, nullptr, 10 * GST_SECOND), GST_STATE_CHANGE_SUCCESS);
        QCOMPARE(state, GST_STATE_PAUSED);
        QCOMPARE(player->getState(), GStreamerPlayer::Paused);
        QCOMPARE(player->getMediaStatus(), GStreamerPlayer::Buffered);
    }

    void seekWhilePlaying()
    {
        const QString wav = mDir.filePath(QStringLiteral("seek.wav"));
        auto player = makePlayer(wav, true);
        QVERIFY(player->setMedia(QUrl::fromLocalFile(mMp3), false));
        QVERIFY(player->play(0, false));
        QTRY_VERIFY_WITH_TIMEOUT(player->getPosition() >= 1000, 10000);
        QVERIFY(player->seek(3000));
        QTRY_VERIFY_WITH_TIMEOUT(player->getPosition() >= 3000, 10000);
        QTRY_COMPARE_WITH_TIMEOUT(player->getMediaStatus(), GStreamerPlayer::EndOfMedia, kEndTimeoutMs);
        player.reset();
        // What the recording holds from before the seek depends on how the recorder takes the
        // flush; what follows it is certain: seconds 3 and 4, nothing of the skipped second 2.
        const QList<int> seconds = WavReader::steppedSecondsIn(wav);
        QVERIFY2(seconds.size() >= 2 && seconds.mid(seconds.size() - 2) == (QList<int>{3, 4}) && !seconds.contains(2),
                 qPrintable(QString::number(seconds.size())));
    }

    void pauseAndResume()
    {
        const QString wav = mDir.filePath(QStringLiteral("pause.wav"));
        auto player = makePlayer(wav, true);
        QSignalSpy states(player.get(), &GStreamerPlayer::stateChanged);
        QVERIFY(player->setMedia(QUrl::fromLocalFile(mMp3), false));
        QVERIFY(player->play(0, false));
        QTRY_VERIFY_WITH_TIMEOUT(player->getPosition() >= 500, 10000);
        QVERIFY(player->pause(false));
        const qint64 pausedAt = player->getPosition();
        QSignalSpy positions(player.get(), &GStreamerPlayer::positionChanged);
        QVERIFY(!positions.wait(600));   // paused: the position must not move
        QCOMPARE(player->getPosition(), pausedAt);
        QVERIFY(player->play(0, false));
        QTRY_COMPARE_WITH_TIMEOUT(player->getMediaStatus(), GStreamerPlayer::EndOfMedia, kEndTimeoutMs);
        QCOMPARE(stateSequence(states), (QList<int>{GStreamerPlayer::Playing, GStreamerPlayer::Paused,
                                                    GStreamerPlayer::Playing, GStreamerPlayer::Stopped}));
        player.reset();
        QCOMPARE(WavReader::steppedSecondsIn(wav), WavReader::secondsFromTo(0, kItemSeconds - 1));
    }

    // The live FIFO feeds an "appsrc://" item through the element this signal hands out; it is
    // emitted while the pipeline changes state, on the thread that changes it.
    void sourceElementOfAnAppSrcItem()
    {
        auto player = makePlayer(mDir.filePath(QStringLiteral("appsrc.wav")), false);
        QString factory;
        QThread* thread = nullptr;
        connect(player.get(), &GStreamerPlayer::newSourceElement, this, [&](GstElement* source) {
            thread = QThread::currentThread();
            if (source)
                factory = QString::fromUtf8(GST_OBJECT_NAME(gst_element_get_factory(source)));
        }, Qt::DirectConnection);
        player->setMedia(QUrl(QStringLiteral("appsrc://")), true);
        QCOMPARE(factory, QStringLiteral("appsrc"));
        QCOMPARE(thread, QThread::currentThread());
    }

    void tagsFillOneFieldPerList()
    {
        MediaV2::GStreamerMediaMetadata metadata;
        auto apply = [&](GstTagList* tags) {
            const bool changed = metadata.setFromTags(tags);
            gst_tag_list_unref(tags);
            return changed;
        };
        QVERIFY(apply(gst_tag_list_new(GST_TAG_TITLE, "Morning", GST_TAG_ALBUM, "Drive", GST_TAG_BITRATE, 128000u, nullptr)));
        QCOMPARE(metadata.title, QStringLiteral("Morning"));
        QVERIFY(metadata.album.isEmpty());
        QVERIFY(apply(gst_tag_list_new(GST_TAG_TITLE, "Morning", GST_TAG_ALBUM, "Drive", GST_TAG_BITRATE, 128000u, nullptr)));
        QCOMPARE(metadata.album, QStringLiteral("Drive"));
        QCOMPARE(metadata.bitrate, 0u);
        QVERIFY(!apply(gst_tag_list_new(GST_TAG_TITLE, "", GST_TAG_BITRATE, 0u, nullptr)));
        QCOMPARE(metadata.title, QStringLiteral("Morning"));
        QVERIFY(apply(gst_tag_list_new(GST_TAG_TITLE, "Morning", GST_TAG_ARTIST, "Band", nullptr)));
        QCOMPARE(metadata.artist, QStringLiteral("Band"));
        QVERIFY(metadata.toJSON().startsWith(QLatin1String("{\"title\":\"Morning\",\"artist\":\"Band\",")));
    }

    void invalidAudioSinkFallsBackToTheDefault()
    {
        setConfig("gstreamer/audio_sink", QStringLiteral("no_such_element_here"));
        LogCapture log;
        GStreamerPlayer player;
        QCOMPARE(errorMessages(log).size(), 1);
        GstElement* sink = nullptr;
        g_object_get(player.pipeline(), "audio-sink", &sink, nullptr);
        QVERIFY(sink);
        GstElement* fallback = findByFactory(sink, "autoaudiosink");
        gst_object_unref(sink);
        QVERIFY(fallback);
        gst_object_unref(fallback);
    }

    void logBridgeFiltersByLevel()
    {
        setConfig("gstreamer/extended_log_level", QStringLiteral("2"));
        gst_init(nullptr, nullptr);
        GST_DEBUG_CATEGORY_INIT(sTestCategory, "cabintest", 0, "log bridge test");
        gst_debug_category_set_threshold(sTestCategory, GST_LEVEL_INFO);
        gst_debug_set_active(TRUE);
        gst_debug_add_log_function(&MediaV2::LogFunction, nullptr, nullptr);
        LogCapture log;
        GST_CAT_WARNING(sTestCategory, "a warning");
        GST_CAT_INFO(sTestCategory, "an info");
        GST_CAT_ERROR(sTestCategory, "an error");
        gst_debug_remove_log_function(&MediaV2::LogFunction);
        QCOMPARE(log.records().size(), 2);
        QCOMPARE(log.records().at(0).level, LogRecord::Warn);
        QVERIFY2(log.records().at(0).message.startsWith(QLatin1String("[gst-log] cabintest ")), qPrintable(log.records().at(0).message));
        QVERIFY(log.records().at(0).message.endsWith(QLatin1String("(): a warning")));
        QCOMPARE(log.records().at(1).level, LogRecord::Error);
    }
};

QTEST_GUILESS_MAIN(TestGStreamerPlayer)
#include "tst_gstreamer_player.moc"
