#pragma once

#include "media_server/GStreamerMediaMetadata.h"
#include "media_server/MediaPlaybackMetadata.h"
#include "media_server/MetadataExtractor.h"
#include "platform/net/NetDownloader.h"

#include <QHash>
#include <QObject>
#include <QString>

#include <gst/app/gstappsrc.h>

#include <memory>

class URLResolver;

namespace MediaV2 {

class MediaFIFORingBuffer;

// Plays an endless live stream (internet radio) by downloading it itself and pushing the bytes
// into the pipeline's appsrc ("appsrc://" item), so that it can ask the station for in-stream
// titles, cut them out of the audio and report the current one (metadataChanged()).
//
// Flow: start() resolves the URL (a station playlist gives its first stream), then downloads
// with "Icy-MetaData: 1". Every chunk loses its title blocks and is queued in the ring. Pushing
// waits for a need-data from the appsrc and for more than "media_fifo/buffer_size" bytes in the
// ring. Each need-data pushes what is queued once and re-enters that buffering, so arriving
// chunks are held until the threshold is passed again instead of being pushed one by one.
// One buffer of at most the appsrc's "max-bytes" (0: no limit) is pushed per feed;
// enough-data holds pushing back until the next need-data. A new appsrc (the pipeline was
// restarted) starts afresh: it wants data, and gets what is queued once buffering is over.
//
// Decisions:
// - A dequeue that comes up short drops the buffer instead of pushing unfilled bytes.
// - The appsrc's callbacks carry a number registered with CallbackTargets, never this pointer,
//   and only post queued calls; cleanup() installs the table again with a number that reaches
//   nothing and the destructor unregisters, so a streaming thread inside need-data while this
//   object is deleted reaches nothing. The appsrc is held by a reference until cleanup(), so
//   re-installing the table never touches a freed element.
// - A live stream has no end: when the download ends for any reason (the station closed the
//   connection, the network failed) and the ring is drained, the appsrc is told end-of-stream,
//   so the engine reports its live end-of-stream error instead of playing silence. Bytes still
//   queued then are pushed without waiting for the buffering threshold.
// - Seeking is refused (a live stream has nowhere to go).
//
// Thread: main thread; the appsrc callbacks run on GStreamer's streaming thread and only post.
// Owns: the resolver while it resolves, the ring, the downloader, one reference to the appsrc.
// Locks: only the ring's own mutex (see MediaFIFORingBuffer); everything else is touched on the
// main thread alone.
// Failure: a full ring drops the chunk with an assertion; push failures are logged.
class GStreamerMediaFIFO : public QObject
{
    Q_OBJECT
public:
    explicit GStreamerMediaFIFO(const MediaPlaybackMetadata& metadata, QObject* parent = nullptr);
    ~GStreamerMediaFIFO() override;

    void start();
    void stop();
    // The pipeline's source for the "appsrc://" item; call on the main thread.
    void playerHasNewSourceElement(GstElement* element);
    GStreamerMediaMetadata getAvailableMetadata() const { return mMetadata; }

    static QString flowReturnToString(GstFlowReturn flow);

signals:
    void metadataChanged();

public slots:
    void urlResolved(QString requested, QString resolved);
    void dataAvailable(QByteArray chunk);
    void downloadComplete(NetDownloader* downloader, NetDownloader::Status status);
    void downloadMetadataChanged();
    void takeAnnouncedBitrate(const QByteArray& header);
    void needData(int length);
    void enoughData();

private:
    void consumeMetadata(const QHash<QString, QString>& pairs);
    void feedGStreamer();
    void endStreamIfDrained();
    void cleanup();
    void releaseAppSrc();

    static void appSrcNeedData(GstAppSrc* appsrc, guint length, gpointer userData);
    static void appSrcEnoughData(GstAppSrc* appsrc, gpointer userData);
    static gboolean appSrcSeekData(GstAppSrc* appsrc, guint64 offset, gpointer userData);

    const QString mUrl;
    const NetStats::Category mStatsCategory;
    URLResolver* mResolver = nullptr;
    std::unique_ptr<MediaFIFORingBuffer> mRing;
    NetDownloader* mDownloader = nullptr;
    GstAppSrc* mAppSrc = nullptr;        // one reference held until cleanup()
    GstAppSrcCallbacks mCallbacks{};
    const quintptr mCallbackId;          // what the appsrc's callbacks carry
    int mMaxBytes = 0;
    quint64 mByteOffset = 0;
    bool mWantsData = true;
    bool mBuffering = true;
    bool mDownloadEnded = false;
    bool mEndOfStreamSent = false;
    bool mStopped = false;               // stop() was called: nothing starts again
    MetadataExtractor mExtractor;
    GStreamerMediaMetadata mMetadata;
};

} // namespace MediaV2
