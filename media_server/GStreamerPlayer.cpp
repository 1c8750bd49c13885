#include "media_server/GStreamerPlayer.h"

#include "media_server/LogFunction.h"
#include "media_server/PlaybinSetup.h"
#include "media_server/StartSeekRule.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/config/ConfigRealValue.h"
#include "platform/config/ConfigStringValue.h"
#include "platform/log/LogLine.h"

#include <malloc.h>

namespace {

// Bus messages are polled, not watched: a quarter second keeps state changes prompt without
// waking the CPU more than needed.
ConfigIntValue sBusPollInterval("gstreamer/bus_poll_interval", 250,
    "how often the engine reads its pipeline's messages (ms)", ConfigRange<int>{1});
// Position reports while playing, in ms: twice a second is smooth enough for a progress bar.
ConfigIntValue sProgressPollInterval("gstreamer/progress_poll_interval", 500,
    "how often the play position is read while playing (ms)", ConfigRange<int>{1});
// Verbosity of the engine's own log lines: 0 volume and seeks, 1 adds tags, durations and end
// of stream, 2 adds buffering and every element's state change.
ConfigIntValue sLogLevel("gstreamer/log_level", 1,
    "detail of the engine's own log lines: below 0 fewest, 0 adds volume and seeks, 1 tags and end of stream, 2 buffering and state changes");
ConfigRealValue sVolume("gstreamer/volume", 1.0,
    "the listener's level: 1.0 as recorded, 0.0 silent, above 1.0 amplifies (factor)", ConfigRange<double>{0.0, 10.0});
// Plays this URL instead of every item's, to try a stream without a client.
ConfigStringValue sOverrideUrl("gstreamer/override_url", QString(),
    "play this URL instead of every item's, to try a stream without a client");
constexpr qint64 kNanosPerMilli = 1000000;

// The name of an enumeration value; an unknown value is reported and named "".
template <int N>
QString nameIn(const char* const (&names)[N], int value, const char* type)
{
    if (value >= 0 && value < N)
        return QString::fromLatin1(names[value]);
    Logger::logAssert("false", QStringLiteral("Unknown %1: %2").arg(QLatin1String(type)).arg(value), __FILE__, __LINE__);
    return QString();
}

bool logAt(int level)
{
    return sLogLevel.value() >= level;
}

// A stopped or released pipeline frees its buffers and elements on its streaming threads'
// malloc arenas, which keep the pages. Handing them back keeps the server's footprint from
// creeping up item after item; it takes well under a millisecond here.
void returnFreedMemory()
{
    malloc_trim(0);
}

QString onOff(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

} // namespace

namespace MediaV2 {

GStreamerPlayer::GStreamerPlayer(QObject* parent)
    : QObject(parent)
{
    qRegisterMetaType<GstElement*>("GstElement*");
    qRegisterMetaType<GStreamerPlayer::State>("GStreamerPlayer::State");
    qRegisterMetaType<GStreamerPlayer::MediaStatus>("GStreamerPlayer::MediaStatus");
    gst_init(nullptr, nullptr);
    if (extendedLogLevel() > 0) {
        gst_debug_add_log_function(&LogFunction, nullptr, nullptr);
        gst_debug_set_active(TRUE);
    }
    mLevel = qBound(0.0, sVolume.value(), kMaxLevel);
    if (!buildPipeline())
        return;
    setVolume(mLevel);
    mBusTimer.setInterval(sBusPollInterval.value());
    connect(&mBusTimer, &QTimer::timeout, this, &GStreamerPlayer::checkGstBus);
    mBusTimer.start();
    mProgressTimer.setInterval(sProgressPollInterval.value());
    connect(&mProgressTimer, &QTimer::timeout, this, &GStreamerPlayer::checkProgress);
}

GStreamerPlayer::~GStreamerPlayer()
{
    cleanup();
}

bool GStreamerPlayer::buildPipeline()
{
    mPipeline = gst_element_factory_make("playbin3", "playbin3");
    LOG_INFO << "Using gstreamer 1.0";
    if (!mPipeline) {
        Logger::logAssert("false", QStringLiteral("Failed to create playbin2 gst element"), __FILE__, __LINE__);
        cleanup();
        return false;
    }
    mVolume = PlaybinSetup::configure(mPipeline);
    mBus = gst_element_get_bus(mPipeline);
    if (!mBus) {
        Logger::logAssert("false", QStringLiteral("Failed to get playbin bus"), __FILE__, __LINE__);
        cleanup();
        return false;
    }
    g_signal_connect(mPipeline, "deep-notify::source", G_CALLBACK(&GStreamerPlayer::sourceNotified), this);
    return true;
}

bool GStreamerPlayer::renewPipeline()
{
    cleanup();
    if (!buildPipeline())
        return false;
    setVolume(mLevel);
    return true;
}

void GStreamerPlayer::cleanup()
{
    if (mBus) {
        gst_object_unref(mBus);
        mBus = nullptr;
    }
    if (mPipeline) {
        // A pipeline released while its streaming threads still run can crash the process
        // (GStreamer says so loudly): it goes to NULL first.
        gst_element_set_state(mPipeline, GST_STATE_NULL);
        gst_object_unref(mPipeline);
        mPipeline = nullptr;
        mVolume = nullptr;
        returnFreedMemory();
    }
}

QString GStreamerPlayer::stringForState(State state)
{
    static const char* const names[] = {"Stopped", "Playing", "Paused", "Error", "ErrorTimeout", "ErrorForbidden"};
    return nameIn(names, int(state), "State");
}

QString GStreamerPlayer::stringForMediaStatus(MediaStatus status)
{
    static const char* const names[] = {"None", "Loading", "Loaded", "Buffering", "Buffered", "EndOfMedia", "Invalid"};
    return nameIn(names, int(status), "MediaStatus");
}

QString GStreamerPlayer::stringForGstState(GstState state)
{
    static const char* const names[] = {"VoidPending", "Null", "Ready", "Paused", "Playing"};
    return nameIn(names, int(state), "GstState");
}

void GStreamerPlayer::setState(State state)
{
    if (state == mState)
        return;
    LOG_INFO << "state change from " << stringForState(mState) << " -> " << stringForState(state);
    mState = state;
    emit stateChanged(state);
    if (state == Playing && !mProgressTimer.isActive())
        mProgressTimer.start();
    else if (state != Playing && mProgressTimer.isActive())
        mProgressTimer.stop();
}

void GStreamerPlayer::setMediaStatus(MediaStatus status)
{
    if (status == mMediaStatus)
        return;
    LOG_INFO << "media status change from " << stringForMediaStatus(mMediaStatus) << " -> " << stringForMediaStatus(status);
    mMediaStatus = status;
    emit mediaStatusChanged(status);
}

void GStreamerPlayer::checkGstBus()
{
    if (!mBus)
        return;
    while (GstMessage* message = gst_bus_pop(mBus)) {
        dispatch(message);
        gst_message_unref(message);
    }
}

void GStreamerPlayer::dispatch(GstMessage* message)
{
    switch (GST_MESSAGE_TYPE(message)) {
    case GST_MESSAGE_EOS: handleEndOfStream(); break;
    case GST_MESSAGE_ERROR: handleError(message); break;
    case GST_MESSAGE_TAG: handleTag(message); break;
    case GST_MESSAGE_BUFFERING: handleBuffering(message); break;
    case GST_MESSAGE_STATE_CHANGED: handleStateChanged(message); break;
    case GST_MESSAGE_DURATION_CHANGED: handleNewDuration(); break;
    default: break;
    }
}

// Every element's state changes arrive here; the player's own State never follows them: it is
// set by the operations and by errors only.
void GStreamerPlayer::handleStateChanged(GstMessage* message)
{
    GstState oldState, newState, pending;
    gst_message_parse_state_changed(message, &oldState, &newState, &pending);
    if (oldState != mLastOld || newState != mLastNew || pending != mLastPending) {
        if (logAt(2))
            LOG_INFO << "State changed from " << stringForGstState(oldState) << " -> " << stringForGstState(newState)
                     << ", pending: " << stringForGstState(pending);
        mLastOld = oldState;
        mLastNew = newState;
        mLastPending = pending;
    }
    if (mMediaStatus == Loading && (newState == GST_STATE_PAUSED || newState == GST_STATE_PLAYING))
        setMediaStatus(Loaded);
    if (GST_MESSAGE_SRC(message) == GST_OBJECT(mPipeline) && newState == GST_STATE_PLAYING) {
        retrieveDuration();
        seekIfNeeded();
    }
}

// While buffering, the pipeline is held paused but the player's State stays Playing.
void GStreamerPlayer::handleBuffering(GstMessage* message)
{
    gint percent = 0;
    gst_message_parse_buffering(message, &percent);
    if (logAt(2))
        LOG_INFO << "buffering: " << percent << "%";
    if (percent < 100) {
        setMediaStatus(Buffering);
        gst_element_set_state(mPipeline, GST_STATE_PAUSED);
    } else {
        setMediaStatus(Buffered);
        if (mState == Playing)
            gst_element_set_state(mPipeline, GST_STATE_PLAYING);
    }
    emit bufferProgress(percent / 100.0);
}

void GStreamerPlayer::handleError(GstMessage* message)
{
    GError* error = nullptr;
    gchar* debug = nullptr;
    gst_message_parse_error(message, &error, &debug);
    LOG_ERROR << "[GST ERROR] element: " << QString::fromUtf8(GST_OBJECT_NAME(GST_MESSAGE_SRC(message)))
              << " message: " << QString::fromUtf8(error ? error->message : "");
    g_clear_error(&error);
    g_free(debug);
    setState(Error);
}

// A live stream never ends by itself: its end is an error, and the pipeline is left for the
// server player to deal with.
void GStreamerPlayer::handleEndOfStream()
{
    if (logAt(1))
        LOG_INFO << "end of stream";
    if (!mLiveStream) {
        stop(false, Error);
        setMediaStatus(EndOfMedia);
        return;
    }
    if (logAt(1))
        LOG_INFO << "end of stream reached unexpectedly";
    setState(Error);
}

void GStreamerPlayer::handleTag(GstMessage* message)
{
    GstTagList* tags = nullptr;
    gst_message_parse_tag(message, &tags);
    if (mMetadata.setFromTags(tags)) {
        if (logAt(1))
            LOG_INFO << mMetadata.toJSON();
        emit metaDataChanged();
    }
    gst_tag_list_unref(tags);
}

void GStreamerPlayer::handleNewDuration()
{
    retrieveDuration();
    seekIfNeeded();
}

void GStreamerPlayer::retrieveDuration()
{
    gint64 duration = 0;
    if (!gst_element_query_duration(mPipeline, GST_FORMAT_TIME, &duration)) {
        LOG_WARN << "failed to query playbin for duration";
        return;
    }
    if (logAt(1))
        LOG_INFO << "New duration: " << qint64(duration / 1000000000.0) << " seconds, format: " << int(GST_FORMAT_TIME);
    mDuration = duration;
}

void GStreamerPlayer::checkProgress()
{
    gint64 position = 0;
    if (!gst_element_query_position(mPipeline, GST_FORMAT_TIME, &position)) {
        LOG_WARN << "failed to query playbin for position";
        return;
    }
    const qint64 ms = position / kNanosPerMilli;
    if (ms != mPosition) {
        mPosition = ms;
        emit positionChanged(ms);
    }
}

// Every item gets a fresh playbin3: the one of this GStreamer release keeps some memory from
// each item it has played (about 10 KiB a time, measured over hundreds of items), so a server
// that runs for months would grow without end; a fresh pipeline gives all of it back.
bool GStreamerPlayer::setMedia(const QUrl& url, bool liveStream)
{
    stop(false, Error);
    if (!renewPipeline())
        return false;
    mMetadata.clear();
    mLiveStream = liveStream;
    mDuration = 0;
    mCurrentUrl = url;
    if (!sOverrideUrl.value().isEmpty())
        mCurrentUrl = QUrl(sOverrideUrl.value());
    g_object_set(mPipeline, "uri", mCurrentUrl.toEncoded().constData(), nullptr);
    guint bufferSize = 0;
    g_object_get(mPipeline, "buffer-size", &bufferSize, nullptr);
    if (logAt(2))
        LOG_INFO << "buffer-size: " << bufferSize;
    LOG_INFO << "URL: '" << mCurrentUrl.toString() << "'";
    setMediaStatus(Loading);
    if (gst_element_set_state(mPipeline, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE) {
        LOG_ERROR << "Unable to set gstreamer state to paused after setMedia()";
        return false;
    }
    return true;
}

// The start of the stream stays silent until the start position is reached, so the listener
// never hears the first moments before the jump.
bool GStreamerPlayer::play(qint64 startPosMs, bool afterBuffering)
{
    LOG_INFO << "URL: " << mCurrentUrl.toString() << " startPosMs: " << startPosMs << " afterBuffering: " << onOff(afterBuffering);
    mPendingSeek = startPosMs;
    if (startPosMs < 1)
        unmute();
    else
        mute();
    if (gst_element_set_state(mPipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        LOG_ERROR << "Unable to set gstreamer state to playing";
        return false;
    }
    if (afterBuffering)
        setMediaStatus(Buffered);
    setState(Playing);
    return true;
}

bool GStreamerPlayer::pause(bool startedBuffering)
{
    LOG_INFO << "URL: " << mCurrentUrl.toString() << " startedBuffering: " << onOff(startedBuffering);
    if (gst_element_set_state(mPipeline, GST_STATE_PAUSED) == GST_STATE_CHANGE_FAILURE) {
        LOG_ERROR << "Unable to set gstreamer state to paused";
        return false;
    }
    if (startedBuffering)
        setMediaStatus(Buffering);
    setState(Paused);
    return true;
}

// Goes through NULL, not READY: playbin3 of this GStreamer release is reliable across item
// changes only from NULL (from READY it can fail with "not-linked").
bool GStreamerPlayer::stop(bool error, State errorState)
{
    LOG_INFO << "URL: " << mCurrentUrl.toString() << " error: " << onOff(error);
    if (gst_element_set_state(mPipeline, GST_STATE_NULL) == GST_STATE_CHANGE_FAILURE) {
        LOG_ERROR << "Unable to set gstreamer state to ready";
        return false;
    }
    setState(error ? errorState : Stopped);
    returnFreedMemory();
    return true;
}

bool GStreamerPlayer::seek(qint64 msPos)
{
    LOG_INFO << "URL: " << mCurrentUrl.toString() << " msPos: " << msPos;
    return gst_element_seek_simple(mPipeline, GST_FORMAT_TIME, GstSeekFlags(GST_SEEK_FLAG_FLUSH | GST_SEEK_FLAG_KEY_UNIT),
                                   msPos * kNanosPerMilli);
}

bool GStreamerPlayer::getSeekCapability(bool* seekable, long* start, long* end)
{
    GstQuery* query = gst_query_new_seeking(GST_FORMAT_TIME);
    const bool answered = gst_element_query(mPipeline, query);
    if (!answered) {
        *seekable = false;
    } else {
        gboolean canSeek = FALSE;
        gint64 segmentStart = 0, segmentEnd = 0;
        gst_query_parse_seeking(query, nullptr, &canSeek, &segmentStart, &segmentEnd);
        *seekable = canSeek;
        *start = long(segmentStart);
        *end = long(segmentEnd);
    }
    gst_query_unref(query);
    return answered;
}

// Runs when the pipeline reaches PLAYING and on every duration change; a pending start
// position waits until a duration is known, unless the stream already says it cannot seek:
// one served without a length never gets a duration and would play muted to its end.
void GStreamerPlayer::seekIfNeeded()
{
    if (mPendingSeek < 1)
        return;
    const StartSeekRule::SeekRange range = seekRange();
    if (mDuration < 1 && !(range.answered && !range.seekable))
        return;
    if (StartSeekRule::pendingSeekIsReachable(mPendingSeek, mDuration, range)) {
        if (logAt(0))
            LOG_INFO << "Seeking stream to position " << mPendingSeek;
        seek(mPendingSeek);
    }
    clearPendingSeekAndUnmute();
}

StartSeekRule::SeekRange GStreamerPlayer::seekRange()
{
    StartSeekRule::SeekRange range;
    long start = 0, end = 0;
    range.answered = getSeekCapability(&range.seekable, &start, &end);
    range.start = start;
    range.end = end;
    return range;
}

void GStreamerPlayer::setVolume(double volume)
{
    if (mVolume)
        g_object_set(mVolume, "volume", volume, nullptr);
    if (logAt(0))
        LOG_INFO << "volume set to: " << volume;
}

double GStreamerPlayer::volume() const
{
    double volume = 1.0;
    if (mVolume)
        g_object_get(mVolume, "volume", &volume, nullptr);
    return volume;
}

void GStreamerPlayer::mute()
{
    setVolume(0.0);
}

void GStreamerPlayer::unmute()
{
    setVolume(mLevel);
}

void GStreamerPlayer::setLevel(double level)
{
    mLevel = qBound(0.0, level, kMaxLevel);
    if (mPendingSeek == 0)   // muted for a start seek: the level is heard once it is done
        setVolume(mLevel);
}

void GStreamerPlayer::clearPendingSeekAndUnmute()
{
    mPendingSeek = 0;
    unmute();
}

// playbin3 has no "source" property of its own: the notification comes from its
// urisourcebin, synchronously, on the thread that changes the pipeline's state.
void GStreamerPlayer::sourceNotified(GstObject*, GstObject* notifier, GParamSpec*, gpointer self)
{
    static_cast<GStreamerPlayer*>(self)->sourceElementChanged(notifier);
}

void GStreamerPlayer::sourceElementChanged(GstObject* notifier)
{
    GstElement* source = nullptr;
    g_object_get(notifier, "source", &source, nullptr);
    emit newSourceElement(source);
    if (source)
        gst_object_unref(source);
}

} // namespace MediaV2
