// bench-live-start URL [ROUNDS]: how long a radio station takes to be heard and to show its
// first title, through our live-stream FIFO and engine ("appsrc://"), beside a bare playbin3
// given the station's URL (souphttpsrc and icydemux, buffering handled as gst-launch-1.0
// handles it). Rounds alternate ours and the bare pipeline, so load on the machine falls on
// both alike; the medians are printed last. "Audio" is the first buffer the audio sink renders
// in the playing state (its "handoff", not its preroll), "title" the first title the player
// reports (ours when the FIFO parses it; the bare pipeline's when its tag message is posted),
// both from the moment playback was asked for.

#include "media_server/GStreamerMediaFIFO.h"
#include "media_server/GStreamerPlayer.h"
#include "platform/config/ConfigStore.h"
#include "platform/log/Logger.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QTimer>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <functional>
#include <vector>

using MediaV2::GStreamerMediaFIFO;
using MediaV2::GStreamerPlayer;

namespace {

const char* const kSink = "fakesink name=benchsink sync=true signal-handoffs=true";
// A start that takes longer than this is a failure, not a figure.
const int kGiveUpMs = 30000;

struct Start {
    qint64 audioMs = -1;
    qint64 titleMs = -1;
};

// Notes the time of the first buffer rendered by the sink named "benchsink" in the playbin's
// audio sink bin (the "handoff" signal, emitted on the streaming thread once the buffer's time
// has come in the playing state).
class FirstBuffer
{
public:
    FirstBuffer(GstElement* playbin, const QElapsedTimer& clock)
        : mClock(clock)
    {
        GstElement* bin = nullptr;
        g_object_get(playbin, "audio-sink", &bin, nullptr);
        mSink = gst_bin_get_by_name(GST_BIN(bin), "benchsink");
        gst_object_unref(bin);
        mHandler = g_signal_connect(mSink, "handoff", G_CALLBACK(&FirstBuffer::rendered), this);
    }
    ~FirstBuffer()
    {
        g_signal_handler_disconnect(mSink, mHandler);
        gst_object_unref(mSink);
    }
    qint64 ms() const { return mMs.load(); }

private:
    static void rendered(GstElement*, GstBuffer*, GstPad*, gpointer self)
    {
        auto* first = static_cast<FirstBuffer*>(self);
        qint64 unset = -1;
        first->mMs.compare_exchange_strong(unset, first->mClock.elapsed());
    }

    const QElapsedTimer& mClock;
    GstElement* mSink = nullptr;
    gulong mHandler = 0;
    std::atomic<qint64> mMs{-1};
};

// Runs the event loop until done() says so or the time is up.
void waitFor(const std::function<bool()>& done)
{
    QElapsedTimer waited;
    waited.start();
    while (!done() && waited.elapsed() < kGiveUpMs)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents, 5);
}

Start ours(const QString& url)
{
    QElapsedTimer clock;
    GStreamerPlayer player;
    MediaV2::MediaPlaybackMetadata item;
    item.url = url;
    item.liveStream = true;
    GStreamerMediaFIFO fifo(item);
    QObject::connect(&player, &GStreamerPlayer::newSourceElement, &fifo, &GStreamerMediaFIFO::playerHasNewSourceElement);
    Start start;
    QObject::connect(&fifo, &GStreamerMediaFIFO::metadataChanged, &fifo, [&] {
        if (start.titleMs < 0)
            start.titleMs = clock.elapsed();
    });
    clock.start();
    FirstBuffer audio(player.pipeline(), clock);
    fifo.start();
    player.setMedia(QUrl(QStringLiteral("appsrc://")), true);
    player.play(0, false);
    waitFor([&] { return audio.ms() >= 0 && start.titleMs >= 0; });
    start.audioMs = audio.ms();
    player.stop(false, GStreamerPlayer::Error);
    return start;
}

// What gst-launch-1.0 does with a pipeline's messages: pause while buffering, note titles.
void handleBareMessages(GstElement* pipeline, const QElapsedTimer& clock, Start& start)
{
    GstBus* bus = gst_element_get_bus(pipeline);
    while (GstMessage* message = gst_bus_pop(bus)) {
        if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_BUFFERING) {
            gint percent = 0;
            gst_message_parse_buffering(message, &percent);
            gst_element_set_state(pipeline, percent < 100 ? GST_STATE_PAUSED : GST_STATE_PLAYING);
        } else if (GST_MESSAGE_TYPE(message) == GST_MESSAGE_TAG && start.titleMs < 0) {
            GstTagList* tags = nullptr;
            gst_message_parse_tag(message, &tags);
            gchar* title = nullptr;
            if (gst_tag_list_get_string(tags, GST_TAG_TITLE, &title))
                start.titleMs = clock.elapsed();
            g_free(title);
            gst_tag_list_unref(tags);
        }
        gst_message_unref(message);
    }
    gst_object_unref(bus);
}

Start bare(const QString& url)
{
    QElapsedTimer clock;
    GstElement* pipeline = gst_element_factory_make("playbin3", nullptr);
    GstElement* sink = gst_parse_bin_from_description(kSink, TRUE, nullptr);
    g_object_set(pipeline, "uri", url.toUtf8().constData(), "audio-sink", sink, nullptr);
    Start start;
    clock.start();
    FirstBuffer audio(pipeline, clock);
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    waitFor([&] {
        handleBareMessages(pipeline, clock, start);
        return audio.ms() >= 0 && start.titleMs >= 0;
    });
    start.audioMs = audio.ms();
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return start;
}

qint64 median(std::vector<qint64> values)
{
    std::sort(values.begin(), values.end());
    return values.empty() ? -1 : values[values.size() / 2];
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc < 2) {
        std::fputs("usage: bench-live-start URL [ROUNDS]\n", stderr);
        return 2;
    }
    const QString url = QString::fromUtf8(argv[1]);
    const int rounds = argc > 2 ? qMax(1, atoi(argv[2])) : 5;
    gst_init(nullptr, nullptr);
    ConfigStore::instance()->set(QStringLiteral("gstreamer/audio_sink"), QString::fromLatin1(kSink), nullptr);
    std::vector<qint64> oursAudio, oursTitle, bareAudio, bareTitle;
    for (int round = 1; round <= rounds; ++round) {
        const Start a = ours(url);
        const Start b = bare(url);
        std::printf("round %d: ours audio %lld ms, title %lld ms; bare playbin3 audio %lld ms, title %lld ms\n", round,
                    a.audioMs, a.titleMs, b.audioMs, b.titleMs);
        std::fflush(stdout);
        if (a.audioMs < 0 || a.titleMs < 0 || b.audioMs < 0 || b.titleMs < 0) {
            std::fputs("bench-live-start: a start took longer than 30 s\n", stderr);
            return 1;
        }
        oursAudio.push_back(a.audioMs);
        oursTitle.push_back(a.titleMs);
        bareAudio.push_back(b.audioMs);
        bareTitle.push_back(b.titleMs);
    }
    std::printf("medians over %d rounds: ours audio %lld ms, title %lld ms; bare playbin3 audio %lld ms, title %lld ms\n",
                rounds, median(oursAudio), median(oursTitle), median(bareAudio), median(bareTitle));
    Logger::flush();
    return 0;
}
