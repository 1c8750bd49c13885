#pragma once

#include "media_server/GStreamerMediaMetadata.h"
#include "media_server/StartSeekRule.h"

#include <QObject>
#include <QTimer>
#include <QUrl>

#include <gst/gst.h>

namespace MediaV2 {

// The one object that talks to GStreamer for playback: a single playbin3 whose bus is polled
// from a Qt timer (no GLib main loop, no bus watch), turned into two small enumerations and
// reported by signals. Units differ on purpose: positions are milliseconds, the duration is
// GStreamer's nanoseconds.
//
// Thread: the owner's (main) thread for everything, except the source-element notification,
// which GStreamer delivers synchronously on the thread that changes the pipeline's state:
// newSourceElement() is emitted from there, so receivers connect queued ("GstElement*" is a
// registered meta-type). Owns the pipeline. Failure: refused state changes return false and
// log; bus errors become State Error; a pipeline that cannot be built leaves an unusable
// player after an assertion.
class GStreamerPlayer : public QObject
{
    Q_OBJECT
public:
    enum State { Stopped = 0, Playing = 1, Paused = 2, Error = 3, ErrorTimeout = 4, ErrorForbidden = 5 };
    Q_ENUM(State)
    enum MediaStatus { None = 0, Loading = 1, Loaded = 2, Buffering = 3, Buffered = 4, EndOfMedia = 5, Invalid = 6 };
    Q_ENUM(MediaStatus)

    explicit GStreamerPlayer(QObject* parent = nullptr);
    ~GStreamerPlayer() override;

    // Stops, loads the URL (or the override URL) and pre-rolls to paused.
    bool setMedia(const QUrl& url, bool liveStream);
    // Goes to playing; a start position of 1 ms or more is sought once the stream allows,
    // muted until then.
    bool play(qint64 startPosMs, bool afterBuffering);
    bool pause(bool startedBuffering);
    bool stop(bool error, State errorState);
    bool seek(qint64 msPos);
    // The volume element takes no more; beyond 1.0 it amplifies (and may clip).
    static constexpr double kMaxLevel = 10.0;
    // The listener's volume (0.0 silent, 1.0 as mastered), kept across items and across a
    // mute; it starts at "gstreamer/volume". Values outside 0..kMaxLevel are clamped.
    void setLevel(double level);
    double level() const { return mLevel; }
    // Silences the item without forgetting the level (a pending start seek), and back to it.
    void mute();
    void unmute();
    void clearPendingSeekAndUnmute();
    bool getSeekCapability(bool* seekable, long* start, long* end);

    State getState() const { return mState; }
    MediaStatus getMediaStatus() const { return mMediaStatus; }
    qint64 getPosition() const { return mPosition; }
    qint64 getDuration() const { return mDuration; }
    QUrl getCurrentUrl() const { return mCurrentUrl; }
    GStreamerMediaMetadata getAvailableMetadata() const { return mMetadata; }
    bool isStopped() const { return mState == Stopped; }
    bool isPlaying() const { return mState == Playing; }
    bool isPaused() const { return mState == Paused; }
    // Error only: a timed-out or forbidden fetch is reported, not a playback error.
    bool hasError() const { return mState == Error; }

    static QString stringForState(State state);
    static QString stringForMediaStatus(MediaStatus status);
    static QString stringForGstState(GstState state);

    // The pipeline, for tests that inspect it; null when construction failed. A new one is built
    // for every item (setMedia).
    GstElement* pipeline() const { return mPipeline; }
    // The volume the item is rendered at (0.0 while muted for a pending seek); 1.0 without a
    // volume element.
    double volume() const;

signals:
    void mediaStatusChanged(GStreamerPlayer::MediaStatus status);
    void stateChanged(GStreamerPlayer::State state);
    void positionChanged(qint64 msPos);
    void metaDataChanged();
    void newSourceElement(GstElement* sourceElement);
    void bufferProgress(qreal);

public slots:
    void checkGstBus();
    void checkProgress();

private:
    void cleanup();
    bool buildPipeline();
    bool renewPipeline();
    void setState(State state);
    void setMediaStatus(MediaStatus status);
    void dispatch(GstMessage* message);
    void handleStateChanged(GstMessage* message);
    void handleBuffering(GstMessage* message);
    void handleError(GstMessage* message);
    void handleEndOfStream();
    void handleTag(GstMessage* message);
    void handleNewDuration();
    void retrieveDuration();
    void seekIfNeeded();
    StartSeekRule::SeekRange seekRange();
    static void sourceNotified(GstObject* pipeline, GstObject* notifier, GParamSpec* property, gpointer self);
    void sourceElementChanged(GstObject* notifier);

    GstElement* mPipeline = nullptr;
    void setVolume(double volume);

    GstElement* mVolume = nullptr;   // owned by mPipeline
    double mLevel = 1.0;
    GstBus* mBus = nullptr;
    QTimer mBusTimer;
    QTimer mProgressTimer;
    qint64 mPosition = 0;   // ms
    qint64 mDuration = 0;   // ns
    State mState = Stopped;
    MediaStatus mMediaStatus = None;
    QUrl mCurrentUrl;
    GStreamerMediaMetadata mMetadata;
    GstState mLastOld = GST_STATE_NULL;
    GstState mLastNew = GST_STATE_NULL;
    GstState mLastPending = GST_STATE_NULL;
    qint64 mPendingSeek = 0;   // ms; 0 = none
    bool mLiveStream = false;
};

} // namespace MediaV2

Q_DECLARE_METATYPE(GstElement*)
