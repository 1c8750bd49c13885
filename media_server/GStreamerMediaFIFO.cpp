#include "media_server/GStreamerMediaFIFO.h"

#include "media_server/CallbackTargets.h"
#include "media_server/MediaFIFORingBuffer.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/log/LogLine.h"
#include "platform/log/Logger.h"
#include "platform/net/URLResolver.h"

#include <QMetaEnum>

#include <limits>

namespace MediaV2 {

namespace {

// Ring capacity in bytes: about a minute of 128 kbit/s audio, so a slow pipeline start never
// makes the network side drop data.
ConfigIntValue sRingBufferSize("media_fifo/ring_buffer_size", 1048576,
    "capacity of a live stream's in-memory FIFO (bytes)", ConfigRange<int>{1});
// Bytes queued before pushing starts or resumes: a few seconds at common live bit rates.
ConfigIntValue sBufferSize("media_fifo/buffer_size", 51200,
    "bytes a live stream queues before the decoder is fed, at start and after a stall (bytes)", ConfigRange<int>{1});

} // namespace

GStreamerMediaFIFO::GStreamerMediaFIFO(const MediaPlaybackMetadata& metadata, QObject* parent)
    : QObject(parent)
    , mUrl(metadata.url)
    , mStatsCategory(NetStats::Category(metadata.statsCategory))
    , mCallbackId(CallbackTargets::add(this))
{
    mCallbacks.need_data = &GStreamerMediaFIFO::appSrcNeedData;
    mCallbacks.enough_data = &GStreamerMediaFIFO::appSrcEnoughData;
    mCallbacks.seek_data = &GStreamerMediaFIFO::appSrcSeekData;
}

// Unregistered first: from here on no streaming thread can post to this object.
GStreamerMediaFIFO::~GStreamerMediaFIFO()
{
    CallbackTargets::remove(mCallbackId);
    cleanup();
}

void GStreamerMediaFIFO::start()
{
    LOG_INFO << "resolving " << mUrl << "...";
    mResolver = new URLResolver(mUrl);
    connect(mResolver, &URLResolver::urlResolved, this, &GStreamerMediaFIFO::urlResolved, Qt::QueuedConnection);
    mResolver->resolve();
}

void GStreamerMediaFIFO::stop()
{
    mStopped = true;
    cleanup();
}

void GStreamerMediaFIFO::playerHasNewSourceElement(GstElement* element)
{
    if (!element) {
        LOG_ASSERT(element, QStringLiteral("playerHasNewSourceElement(): null GstElement"));
        return;
    }
    releaseAppSrc();
    mAppSrc = GST_APP_SRC(gst_object_ref(element));
    // A new source (the pipeline was stopped and started again) starts afresh, and may already
    // have asked for data before it was handed over.
    mWantsData = true;
    mEndOfStreamSent = false;
    mByteOffset = 0;
    gst_app_src_set_callbacks(mAppSrc, &mCallbacks, reinterpret_cast<gpointer>(mCallbackId), nullptr);
    guint64 maxBytes = 0;
    g_object_get(mAppSrc, "max-bytes", &maxBytes, nullptr);
    mMaxBytes = int(qMin<guint64>(maxBytes, std::numeric_limits<int>::max()));
    gst_app_src_set_stream_type(mAppSrc, GST_APP_STREAM_TYPE_STREAM);
    gst_app_src_set_size(mAppSrc, -1);
    if (!mBuffering || mDownloadEnded)
        feedGStreamer();
    endStreamIfDrained();
}

QString GStreamerMediaFIFO::flowReturnToString(GstFlowReturn flow)
{
    switch (flow) {
    case GST_FLOW_OK: return QStringLiteral("OK");
    case GST_FLOW_NOT_LINKED: return QStringLiteral("Not Linked");
    case GST_FLOW_FLUSHING: return QStringLiteral("Flushing");
    case GST_FLOW_EOS: return QStringLiteral("End of Stream");
    case GST_FLOW_NOT_NEGOTIATED: return QStringLiteral("Not Negotiated");
    case GST_FLOW_ERROR: return QStringLiteral("Error");
    case GST_FLOW_NOT_SUPPORTED: return QStringLiteral("Not Supported");
    default: return QStringLiteral("Other");
    }
}

void GStreamerMediaFIFO::urlResolved(QString requested, QString resolved)
{
    if (mStopped)
        return;   // an answer posted before stop()
    LOG_INFO << "resolved " << requested << " -> " << resolved;
    delete mResolver;
    mResolver = nullptr;
    mRing = std::make_unique<MediaFIFORingBuffer>(sRingBufferSize.value());
    mDownloader = new NetDownloader(mStatsCategory, resolved, false);
    mDownloader->addHeader(QStringLiteral("Icy-MetaData"), QStringLiteral("1"));
    mDownloader->addHeader(QStringLiteral("transferMode.dlna.org"), QStringLiteral("Streaming"));
    mDownloader->setRetryWithTLSV1OnSSLError(true);
    connect(mDownloader, &NetDownloader::dataAvailable, this, &GStreamerMediaFIFO::dataAvailable);
    connect(mDownloader, &NetDownloader::downloadComplete, this, &GStreamerMediaFIFO::downloadComplete);
    connect(mDownloader, &NetDownloader::metaDataChanged, this, &GStreamerMediaFIFO::downloadMetadataChanged);
    LOG_INFO << "starting to read from stream...";
    mDownloader->startDownload(QByteArray(), false);
}

void GStreamerMediaFIFO::downloadMetadataChanged()
{
    if (mDownloader && mDownloader->hasResponseHeader("icy-br"))
        takeAnnouncedBitrate(mDownloader->responseHeader("icy-br"));
    if (!mDownloader || !mDownloader->hasResponseHeader("icy-metaint"))
        return;
    QByteArray value = mDownloader->responseHeader("icy-metaint");
    const int nul = value.indexOf('\0');
    if (nul >= 0)
        value.truncate(nul);
    bool ok = false;
    const uint interval = value.trimmed().toUInt(&ok);
    if (ok && interval > 0)   // 0: the station sends no titles after all
        mExtractor.setMetadataInterval(int(qMin<uint>(interval, std::numeric_limits<int>::max())));
}

// "icy-br" is the station's bit rate in kbit/s ("128", or "128,128" from some servers). The
// engine sees only the bare audio through the FIFO and may never tag a bit rate of its own.
void GStreamerMediaFIFO::takeAnnouncedBitrate(const QByteArray& header)
{
    bool ok = false;
    const uint kbps = header.split(',').value(0).trimmed().toUInt(&ok);
    if (!ok || kbps == 0 || kbps > 100000 || mMetadata.bitrate == kbps * 1000)
        return;
    mMetadata.bitrate = kbps * 1000;
    emit metadataChanged();
}

void GStreamerMediaFIFO::dataAvailable(QByteArray chunk)
{
    if (!mRing)
        return;
    consumeMetadata(mExtractor.extract(chunk));
    if (!mRing->enqueue(chunk.constData(), int(chunk.size())))
        LOG_ASSERT(false, QStringLiteral("failed to queue %1 bytes in ring buffer").arg(chunk.size()));
    if (mBuffering) {
        if (mRing->used() <= sBufferSize.value())
            return;
        LOG_INFO << "finished buffering";
        mBuffering = false;
    }
    feedGStreamer();
}

void GStreamerMediaFIFO::consumeMetadata(const QHash<QString, QString>& pairs)
{
    const QString title = pairs.value(QStringLiteral("StreamTitle"));
    if (title.isEmpty())
        return;
    mMetadata.title = title;
    emit metadataChanged();
}

// The download is over whatever its status: a live stream that stops sending has ended, and
// what is still queued plays out before the end-of-stream.
void GStreamerMediaFIFO::downloadComplete(NetDownloader* downloader, NetDownloader::Status status)
{
    LOG_INFO << "the stream ended: " << QMetaEnum::fromType<NetDownloader::Status>().valueToKey(status) << " "
             << (downloader ? downloader->errorString() : QString());
    mDownloadEnded = true;
    feedGStreamer();
    endStreamIfDrained();
}

void GStreamerMediaFIFO::needData(int length)
{
    LOG_INFO << "needData(" << length << "): start buffering...";
    mBuffering = true;
    mWantsData = true;
    feedGStreamer();
    endStreamIfDrained();
}

void GStreamerMediaFIFO::enoughData()
{
    LOG_INFO << "enoughData!";
    mWantsData = false;
}

void GStreamerMediaFIFO::feedGStreamer()
{
    if (!mWantsData || !mRing || !mAppSrc)
        return;
    const int n = mMaxBytes > 0 ? qMin(mRing->used(), mMaxBytes) : mRing->used();   // 0 = no limit
    if (n == 0)
        return;
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, gsize(n), nullptr);
    GST_BUFFER_OFFSET(buffer) = mByteOffset;
    GST_BUFFER_OFFSET_END(buffer) = mByteOffset + n - 1;
    mByteOffset += n;
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    const bool filled = mRing->dequeue(reinterpret_cast<char*>(map.data), n);
    gst_buffer_unmap(buffer, &map);
    if (!filled) {
        LOG_WARN << "failed to dequeue " << n << " bytes into GstBuffer";
        gst_buffer_unref(buffer);
        return;
    }
    const GstFlowReturn flow = gst_app_src_push_buffer(mAppSrc, buffer);
    if (flow != GST_FLOW_OK)
        LOG_WARN << "feedGStreamer(): push buffer returned " << flowReturnToString(flow);
}

void GStreamerMediaFIFO::endStreamIfDrained()
{
    if (!mDownloadEnded || mEndOfStreamSent || !mAppSrc || (mRing && mRing->used() > 0))
        return;
    LOG_INFO << "the stream has ended and everything received was pushed: end of stream";
    mEndOfStreamSent = true;
    gst_app_src_end_of_stream(mAppSrc);
}

void GStreamerMediaFIFO::cleanup()
{
    LOG_INFO << "cleanup()";
    if (mAppSrc)
        gst_app_src_set_callbacks(mAppSrc, &mCallbacks, nullptr, nullptr);   // reaches nothing
    releaseAppSrc();
    delete mResolver;
    mResolver = nullptr;
    mRing.reset();
    delete mDownloader;
    mDownloader = nullptr;
}

void GStreamerMediaFIFO::releaseAppSrc()
{
    if (mAppSrc)
        gst_object_unref(mAppSrc);
    mAppSrc = nullptr;
}

// The three callbacks run on GStreamer's streaming thread: they post, or log, and nothing else.
void GStreamerMediaFIFO::appSrcNeedData(GstAppSrc*, guint length, gpointer userData)
{
    bool posted = false;
    const bool reached = CallbackTargets::reach(quintptr(userData), [length, &posted](QObject* fifo) {
        posted = QMetaObject::invokeMethod(fifo, "needData", Qt::QueuedConnection, Q_ARG(int, int(length)));
    });
    if (reached && !posted)
        LOG_ASSERT(false, QStringLiteral("Failed to invoke GStreamerMediaFIFO::needData()"));
}

void GStreamerMediaFIFO::appSrcEnoughData(GstAppSrc*, gpointer userData)
{
    bool posted = false;
    const bool reached = CallbackTargets::reach(quintptr(userData), [&posted](QObject* fifo) {
        posted = QMetaObject::invokeMethod(fifo, "enoughData", Qt::QueuedConnection);
    });
    if (reached && !posted)
        LOG_ASSERT(false, QStringLiteral("Failed to invoke GStreamerMediaFIFO::enoughData()"));
}

gboolean GStreamerMediaFIFO::appSrcSeekData(GstAppSrc*, guint64, gpointer)
{
    LOG_ERROR << "gst tried to seek!";
    return FALSE;
}

} // namespace MediaV2
