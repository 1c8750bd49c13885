#pragma once

#include "UI/media_server/MediaServerState.h"
#include "media_server/CachingGStreamerWrapper.h"
#include "media_server/MediaPlaybackMetadata.h"
#include "media_server/MediaServerMachineOwner.h"

#include <QObject>

#include <memory>

namespace MediaV2 {

class MediaServerMachineSM;
class MediaServerMachineState;

// The single object that turns client requests into playback. The service forwards each
// request by queued invocation, by method name, to a slot here; the slot sends the matching
// event to the playback state machine, acts on the source wrapper and answers with its
// completion signal. The engine's notifications, relayed by the wrapper, become further events
// and the published MEDIA2_* values. Every entry into a machine state publishes the pair
// (state, error) in MEDIA2_serverState.
//
// A play from position 0 starts a freshly loaded item at its own "startposition". A play asked
// for while the item is still loading is answered true and done once it is loaded: the engine
// still holds the previous item until then. A load that fails drops it, and so does a pause
// asked for while loading (answered true: nothing plays).
//
// Answers: play, pause and stop in the state they ask for answer true at once; a seek outside
// Playing and Paused is logged and never answered (the client's call times out); a load while
// anything is loaded stops first and loads the pair once the machine is back in NoMedia, and
// only then answers. There is deliberately no invokable for the service's two download-fault
// test requests: invoking them fails and is logged.
//
// Thread: main thread; every slot asserts it runs there. Owns the wrapper (and through it the
// engine, the downloads and the stream cache thread) and the machine. No locks of its own:
// the data values are written under their own event locks.
class GStreamerServerPlayer : public QObject, public MediaServerMachineOwner
{
    Q_OBJECT
public:
    // Created on the first call, on the calling thread (start-up calls it on the main thread);
    // destroyed with the process's other singletons at finalisation.
    static GStreamerServerPlayer* instance();

    GStreamerServerPlayer();
    ~GStreamerServerPlayer() override;

    // The published state of a machine state number, and of the machine's current state.
    static MediaServerState machineStateToState(int machineState);
    MediaServerState currentState() const;
    // What is loaded, as the client described it (invalid when nothing was ever loaded), and its
    // length in ms as far as known: the engine's once it has one, else the item's own; -1 if
    // neither knows.
    const MediaPlaybackMetadata& currentItem() const { return mPlayer.currentMetadata(); }
    qint64 currentDurationMs() const;
    // The listener's volume (1.0 as mastered), kept across items.
    double volume() const;
    void setVolume(double volume);

    // MediaServerMachineOwner
    void machineStateChanged() override;
    void onStop() override;
    bool isTrace() const override;

    // Clears the values that describe what is playing: elapsed time, title, bit rate.
    void resetBroadcastedState();

    // For tests.
    CachingGStreamerWrapper* wrapper() { return &mPlayer; }

signals:
    void playComplete(bool success);
    void pauseComplete(bool success);
    void stopComplete(bool success);
    void seekComplete(bool success);
    void loadMediaComplete(bool success);

public slots:
    void play(qint64 milliSecondsPos);
    void play() { play(0); }
    void pause();
    void stop();
    void seek(int milliSecondsPos);
    void loadMedia(MediaPlaybackMetadata metadata, MediaPlaybackMetadata onDeckMetadata);
    void playMediaFile(QString fileName);
    void stopMediaFile();

    void gstreamerMediaStatusChanged(GStreamerPlayer::MediaStatus status);
    void gstreamerStateChanged(GStreamerPlayer::State state);
    void gstreamerPositionChanged(qint64 msPos);
    void gstreamerMetadataChanged();
    void streamingMediaBufferProgress(qreal percent, qint64 downloadedBytes, qint64 totalBytes);

private:
    void internalStop(const MediaPlaybackMetadata& item);
    qint64 startFrom(qint64 requestedMs);
    bool startPlaying(qint64 milliSecondsPos);
    void playHeldRequest();
    void connectWrapper();
    MediaServerMachineState* state() const;

    CachingGStreamerWrapper mPlayer;
    MediaPlaybackMetadata mPendingMetadata;         // loaded by onStop() when valid
    MediaPlaybackMetadata mPendingOnDeckMetadata;
    std::unique_ptr<MediaServerMachineSM> mMachine;
    bool mTrace;
    qint64 mItemStartMs = 0;   // the loaded item's "startposition", until the first play or seek
    qint64 mPlayWhenLoaded = -1;   // a play asked for while loading (-1: none), done on Loaded
};

} // namespace MediaV2
