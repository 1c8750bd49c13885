#include "media_server/MediaServer2Impl.h"

#include "media_server/GStreamerServerPlayer.h"
#include "media_server/MediaPlaybackMetadata.h"
#include "platform/log/Logger.h"
#include "platform/service/ServiceManagerRegistrar.h"

namespace {

ServiceManagerRegistrar regMediaServer2Impl(QStringLiteral("MediaServer2"), QStringLiteral("MediaServer2"),
                                            &MediaServer2ImplBase::staticMetaObject, ServiceInstanceType(2), QStringList());

// The framework creates the registered base's implementation, this class.
const bool sImplemented = (ServiceManagerRegistrar::implement(&MediaServer2ImplBase::staticMetaObject,
                                                              &MediaV2::MediaServerImpl2::staticMetaObject),
                           true);

const char kNoPlayer[] = "Built without gstreamer!";

} // namespace

namespace MediaV2 {

// What one deferred request connects, invokes and reports; the texts are those that operators
// and tests look for in the log.
struct DeferredRequest
{
    const char* signal;   // "2stopComplete(bool)"
    const char* slot;     // "1stopComplete(bool)"
    const char* connectText;
    const char* disconnectText;
    const char* invokeText;
    const char* invokeMessage;
};

namespace {

#define CABIN_DEFERRED(name, invokeText, invokeMessage)                                                        \
    DeferredRequest                                                                                            \
    {                                                                                                          \
        "2" #name "Complete(bool)", "1" #name "Complete(bool)",                                                \
            "connect(mPlayer, \"2\"\"" #name "Complete(bool)\", this, \"1\"\"" #name                           \
            "Complete(bool)\", Qt::QueuedConnection)",                                                         \
            "disconnect(mPlayer, \"2\"\"" #name "Complete(bool)\", this, \"1\"\"" #name "Complete(bool)\")", \
            invokeText, invokeMessage                                                                          \
    }

const DeferredRequest kStop = CABIN_DEFERRED(stop, "QMetaObject::invokeMethod( mPlayer, \"stop\", Qt::QueuedConnection )",
                                             "stop(): failed to invoke GStreamerServerPlayer::stop()");
const DeferredRequest kPause = CABIN_DEFERRED(pause, "QMetaObject::invokeMethod( mPlayer, \"pause\", Qt::QueuedConnection )",
                                              "pause(): failed to invoke GStreamerServerPlayer::pause()");
const DeferredRequest kPlay = CABIN_DEFERRED(
    play, "QMetaObject::invokeMethod( mPlayer, \"play\", Qt::QueuedConnection, Q_ARG(qint64, milliSecondsStartPos) )",
    "play(): failed to invoke GStreamerServerPlayer::play()");
const DeferredRequest kLoadMedia = CABIN_DEFERRED(
    loadMedia,
    "QMetaObject::invokeMethod( mPlayer, \"loadMedia\", Qt::QueuedConnection, Q_ARG(const MediaPlaybackMetadata&, metadata), "
    "Q_ARG(const MediaPlaybackMetadata&, onDeckMetadata) )",
    "loadMedia(): failed to invoke GStreamerServerPlayer::loadMedia()");
const DeferredRequest kSeek = CABIN_DEFERRED(
    seek, "QMetaObject::invokeMethod( mPlayer, \"seek\", Qt::QueuedConnection, Q_ARG(int, milliSecondsPos) )",
    "seek(): failed to invoke GStreamerServerPlayer::seek()");

#undef CABIN_DEFERRED

} // namespace

MediaServerImpl2::MediaServerImpl2()
    : mPlayer(GStreamerServerPlayer::instance())
{
    qRegisterMetaType<MediaPlaybackMetadata>("MediaPlaybackMetadata");
}

bool MediaServerImpl2::hasPlayer() const
{
    if (!mPlayer)
        Logger::logAssert("false", QLatin1String(kNoPlayer), __FILE__, __LINE__);
    return mPlayer != nullptr;
}

template <class Invoke>
bool MediaServerImpl2::deferToPlayer(const DeferredRequest& request, ServiceCallContext* context, Invoke invoke)
{
    if (!hasPlayer())
        return false;
    mPendingContext = context;
    context->setDeferredResponse(true);
    // A repeated request (stop, stop) must not leave two connections behind: one completion
    // would then answer twice.
    disconnect(mPlayer, request.signal, this, request.slot);
    if (!connect(mPlayer, request.signal, this, request.slot, Qt::QueuedConnection))
        Logger::logAssert(request.connectText, QStringLiteral("Connect failed"), __FILE__, __LINE__);
    if (!invoke())
        Logger::logAssert(request.invokeText, QLatin1String(request.invokeMessage), __FILE__, __LINE__);
    return true;
}

// One request, one answer: the player's later emissions of the same signal reach nobody.
bool MediaServerImpl2::finishDeferred(const DeferredRequest& request)
{
    if (!disconnect(mPlayer, request.signal, this, request.slot))
        Logger::logAssert(request.disconnectText, QStringLiteral("Disconnect failed"), __FILE__, __LINE__);
    if (!mPendingContext)
        Logger::logAssert("mPendingContext", QStringLiteral("answer for a request whose caller is gone"), __FILE__, __LINE__);
    return mPendingContext != nullptr;
}

bool MediaServerImpl2::stop(ServiceCallContext* context)
{
    return deferToPlayer(kStop, context, [this] { return QMetaObject::invokeMethod(mPlayer, "stop", Qt::QueuedConnection); });
}

bool MediaServerImpl2::pause(ServiceCallContext* context)
{
    return deferToPlayer(kPause, context, [this] { return QMetaObject::invokeMethod(mPlayer, "pause", Qt::QueuedConnection); });
}

bool MediaServerImpl2::play(const int& milliSecondsStartPos, ServiceCallContext* context)
{
    const qint64 position = milliSecondsStartPos;
    return deferToPlayer(kPlay, context, [this, position] {
        return QMetaObject::invokeMethod(mPlayer, "play", Qt::QueuedConnection, Q_ARG(qint64, position));
    });
}

bool MediaServerImpl2::loadMedia(const QString& playbackMetadata, const QString& onDeckMetadata, ServiceCallContext* context)
{
    const MediaPlaybackMetadata metadata(playbackMetadata);
    const MediaPlaybackMetadata onDeck(onDeckMetadata);
    return deferToPlayer(kLoadMedia, context, [&] {
        return QMetaObject::invokeMethod(mPlayer, "loadMedia", Qt::QueuedConnection, Q_ARG(const MediaPlaybackMetadata&, metadata),
                                         Q_ARG(const MediaPlaybackMetadata&, onDeck));
    });
}

bool MediaServerImpl2::seek(const int& milliSecondsPos, ServiceCallContext* context)
{
    return deferToPlayer(kSeek, context, [this, milliSecondsPos] {
        return QMetaObject::invokeMethod(mPlayer, "seek", Qt::QueuedConnection, Q_ARG(int, milliSecondsPos));
    });
}

// Answered at once: the answer says the request was accepted, not that the file plays.
bool MediaServerImpl2::playMediaFile(const QString& fileName, ServiceCallContext* context)
{
    if (!hasPlayer())
        return false;
    mPendingContext = context;
    if (!QMetaObject::invokeMethod(mPlayer, "playMediaFile", Qt::QueuedConnection, Q_ARG(QString, fileName)))
        Logger::logAssert("QMetaObject::invokeMethod( mPlayer, \"playMediaFile\", Qt::QueuedConnection, Q_ARG(QString, fileName) )",
                          QStringLiteral("playMediaFile(): failed to invoke GStreamerServerPlayer::playMediaFile()"), __FILE__, __LINE__);
    return true;
}

bool MediaServerImpl2::stopMediaFile(ServiceCallContext* context)
{
    if (!hasPlayer())
        return false;
    mPendingContext = context;
    if (!QMetaObject::invokeMethod(mPlayer, "stopMediaFile", Qt::QueuedConnection))
        Logger::logAssert("QMetaObject::invokeMethod( mPlayer, \"stopMediaFile\", Qt::QueuedConnection )",
                          QStringLiteral("playMediaFile(): failed to invoke GStreamerServerPlayer::stopMediaFile()"), __FILE__, __LINE__);
    return true;
}

// Test hook; the player deliberately has no such invokable, so only the failure is logged.
void MediaServerImpl2::killBufferDownload(ServiceCallContext*)
{
    if (hasPlayer() && !QMetaObject::invokeMethod(mPlayer, "mediaBufferSimulateFailure", Qt::QueuedConnection))
        Logger::logAssert("QMetaObject::invokeMethod( mPlayer, \"mediaBufferSimulateFailure\", Qt::QueuedConnection )",
                          QStringLiteral("killBufferDownload(): failed to invoke GStreamerServerPlayer::mediaBufferSimulateFailure()"),
                          __FILE__, __LINE__);
}

void MediaServerImpl2::timeoutBufferDownload(ServiceCallContext*)
{
    if (hasPlayer() && !QMetaObject::invokeMethod(mPlayer, "mediaBufferSimulateTimeout", Qt::QueuedConnection))
        Logger::logAssert("QMetaObject::invokeMethod( mPlayer, \"mediaBufferSimulateTimeout\", Qt::QueuedConnection )",
                          QStringLiteral("timeoutBufferDownload(): failed to invoke GStreamerServerPlayer::mediaBufferSimulateTimeout()"),
                          __FILE__, __LINE__);
}

void MediaServerImpl2::loadMediaComplete(bool ok)
{
    if (finishDeferred(kLoadMedia))
        sendLoadMediaResponse(ok, mPendingContext);
}

void MediaServerImpl2::stopComplete(bool ok)
{
    if (finishDeferred(kStop))
        sendStopResponse(ok, mPendingContext);
}

void MediaServerImpl2::pauseComplete(bool ok)
{
    if (finishDeferred(kPause))
        sendPauseResponse(ok, mPendingContext);
}

void MediaServerImpl2::playComplete(bool ok)
{
    if (finishDeferred(kPlay))
        sendPlayResponse(ok, mPendingContext);
}

void MediaServerImpl2::seekComplete(bool ok)
{
    if (finishDeferred(kSeek))
        sendSeekResponse(ok, mPendingContext);
}

} // namespace MediaV2
