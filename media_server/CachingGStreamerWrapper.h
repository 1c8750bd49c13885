#pragma once

#include "media_server/GStreamerPlayer.h"
#include "media_server/MediaPlaybackMetadata.h"
#include "media_server/StreamingMediaBuffer.h"

#include <QObject>
#include <QQueue>
#include <QString>
#include <QUrl>

class SimpleTThread;

namespace MediaV2 {

class GStreamerMediaFIFO;
class StreamCache;
class StreamingMediaPreloader;

// Chooses where each item's audio comes from and keeps it flowing: a complete file from the
// stream cache, a download growing in its disk buffer (played while it grows), a live station
// through the appsrc FIFO, or the URL itself handed to the engine. While a disk buffer feeds
// the engine it compares the audio downloaded ahead of the play position with two thresholds:
// below "media_buffer/underrun_threshold_ms" it pauses the engine for an underrun, above
// "media_buffer/resume_play_threshold_ms" (or when the download finished) it resumes it, unless
// the client stopped playback. A start position beyond the download is held the same way,
// paused, until the resume threshold is downloaded beyond it. Once the current item is
// complete, the item expected next is looked up in the cache and preloaded when it is not there.
//
// Decisions:
// - While a FIFO feeds the engine, getAvailableMetadata() is the engine's record with the
//   station's current title in it: the FIFO cuts the titles out of the stream, so the engine
//   never sees them. Its bit rate is the station's announced one while the engine has none.
// - The stream cache and its thread end with the wrapper (after the calls already queued to
//   them) or at shutdown in the platform's finalisation, whichever comes first; the cache's
//   answers come queued, so none reaches a destroyed wrapper.
// - The cache answers lookups one by one in the order asked; the wrapper keeps the list of
//   lookups it is waiting for, so an answer about a current item replaced meanwhile is dropped
//   rather than taken for the new item. An outstanding on-deck lookup is still answered as one.
//
// Thread: main thread, like the engine, the buffers, the preloader and the FIFO it owns. The
// stream cache lives on "StreamCacheThread" and is reached only by queued invocations; its
// answers come back queued. No locks. Failure: failed invocations are LOG_ASSERTs; a failed
// download stops the engine in the matching error state and waits for the next item.
class CachingGStreamerWrapper : public QObject
{
    Q_OBJECT
public:
    explicit CachingGStreamerWrapper(QObject* parent = nullptr);
    ~CachingGStreamerWrapper() override;

    // True when the source is being chosen asynchronously (buffer or cache lookup); otherwise
    // the engine's answer.
    bool setMedia(const MediaPlaybackMetadata& current, const MediaPlaybackMetadata& onDeck);
    bool playMediaFile(const QString& path);
    bool play(qint64 pos);
    bool pause();
    bool seek(qint64 pos);
    bool stop();
    bool stopMediaFile();
    void cleanup();

    bool isStopped() const { return mPlayer.isStopped(); }
    bool isPaused() const { return mPlayer.isPaused(); }
    bool isPlaying() const { return mPlayer.isPlaying(); }
    bool hasError() const { return mPlayer.hasError(); }
    qint64 getDuration() const { return mPlayer.getDuration(); }
    qint64 getPosition() const { return mPlayer.getPosition(); }
    GStreamerPlayer::State getState() const { return mPlayer.getState(); }
    GStreamerPlayer::MediaStatus getMediaStatus() const { return mPlayer.getMediaStatus(); }
    GStreamerMediaMetadata getAvailableMetadata() const;
    QUrl getCurrentUrl() const { return mPlayer.getCurrentUrl(); }
    // The item last given to setMedia(), as the client described it.
    const MediaPlaybackMetadata& currentMetadata() const { return mMetadata; }
    double volumeLevel() const { return mPlayer.level(); }
    void setVolumeLevel(double level) { mPlayer.setLevel(level); }

    // A string starting with "/" is a local file; anything else is parsed as a URL as it stands.
    static QUrl cleanupUrl(const QString& url);

    // For tests: the engine, the stream cache, the current buffer and preloader (null when
    // there is none).
    GStreamerPlayer* player() { return &mPlayer; }
    StreamCache* streamCache() const { return mStreamCache; }
    StreamingMediaBuffer* mediaBuffer() const { return mMediaBuffer; }
    StreamingMediaPreloader* preloader() const { return mPreloader; }

signals:
    void mediaStatusChanged(GStreamerPlayer::MediaStatus status);
    void stateChanged(GStreamerPlayer::State state);
    void positionChanged(qint64 msPos);
    void metaDataChanged();
    void bufferProgress(qreal progressPercent, qint64 downloadedBytes, qint64 totalBytes);

public slots:
    void mediaBufferStateChanged(StreamingMediaBuffer::State state);
    void mediaBufferProgress(qreal percent, qint64 downloadedBytes, qint64 totalBytes);
    void gstreamerBufferProgress(qreal percent);
    void gstreamerPositionChanged(qint64 ms);
    void onStreamFileFound(bool inCache, QString file, qint64 timeSeconds);

private:
    void startStreamingMediaBuffer();
    void initPreloadingOnDeck();
    void startPreloadingOnDeck();
    enum Lookup { CurrentItem, OnDeckItem, Superseded };
    void findStream(const QString& key, Lookup lookup);
    void supersedePendingLookups();
    void checkForUnderrun();
    bool growingFileLacks(qint64 pos) const;
    qint64 downloadedMs() const;
    void cleanupMediaBuffer(StreamingMediaBuffer* buffer);
    void cleanupMediaBuffers();
    void cleanupMediaFIFO();
    bool setLiveMedia();
    void playFromCache(const QString& file, qint64 timeSeconds);

    GStreamerPlayer mPlayer;
    MediaPlaybackMetadata mMetadata;
    MediaPlaybackMetadata mOnDeckMetadata;
    StreamingMediaBuffer* mMediaBuffer = nullptr;
    StreamingMediaPreloader* mPreloader = nullptr;
    bool mMediaSet = false;
    bool mStopRequested = false;
    double mBufferProgress = 0.0;
    qint64 mPosition = 0;
    qint64 mPendingStartMs = 0;   // a start position held until the download reaches it
    StreamCache* mStreamCache = nullptr;
    SimpleTThread* mStreamCacheThread = nullptr;
    QQueue<Lookup> mPendingLookups;   // the cache's answers still to come, oldest first
    GStreamerMediaFIFO* mMediaFIFO = nullptr;
};

} // namespace MediaV2
