#include "tools/play/ItemSequencePlayer.h"

#include "media_server/StreamingMediaPreloader.h"
#include "tools/common/ToolOutput.h"

#include <QCoreApplication>

using MediaV2::GStreamerPlayer;
using MediaV2::MediaPlaybackMetadata;
using MediaV2::StreamingMediaBuffer;

namespace {

using ToolOutput::kProgressStepPercent;
using ToolOutput::printLine;

bool isErrorState(GStreamerPlayer::State state)
{
    return state == GStreamerPlayer::Error || state == GStreamerPlayer::ErrorTimeout || state == GStreamerPlayer::ErrorForbidden;
}

} // namespace

ItemSequencePlayer::ItemSequencePlayer(MediaV2::CachingGStreamerWrapper* wrapper, const QList<MediaPlaybackMetadata>& items)
    : mWrapper(wrapper)
    , mItems(items)
{
    connect(mWrapper, &MediaV2::CachingGStreamerWrapper::stateChanged, this, &ItemSequencePlayer::stateChanged);
    connect(mWrapper, &MediaV2::CachingGStreamerWrapper::mediaStatusChanged, this, &ItemSequencePlayer::mediaStatusChanged);
    connect(mWrapper, &MediaV2::CachingGStreamerWrapper::bufferProgress, this, &ItemSequencePlayer::bufferProgress);
}

void ItemSequencePlayer::start()
{
    mCurrent = 0;
    startItem();
}

MediaPlaybackMetadata ItemSequencePlayer::onDeckItem() const
{
    return mCurrent + 1 < mItems.size() ? mItems.at(mCurrent + 1) : MediaPlaybackMetadata();
}

void ItemSequencePlayer::startItem()
{
    const MediaPlaybackMetadata& item = mItems.at(mCurrent);
    printLine(QStringLiteral("item %1: %2 (cache key %3, %4 ms)").arg(mCurrent + 1).arg(item.url, item.cacheKey).arg(item.duration));
    mPrintedStep = -1;
    if (!mWrapper->setMedia(item, onDeckItem()))
        QCoreApplication::exit(1);
}

void ItemSequencePlayer::stateChanged(GStreamerPlayer::State state)
{
    printLine(QStringLiteral("state: %1 at %2 s").arg(GStreamerPlayer::stringForState(state)).arg(mWrapper->getPosition() / 1000.0, 0, 'f', 1));
    if (isErrorState(state))
        QCoreApplication::exit(1);
}

// Loaded comes once per item, when the engine has pre-rolled what the wrapper gave it.
void ItemSequencePlayer::mediaStatusChanged(GStreamerPlayer::MediaStatus status)
{
    printLine(QStringLiteral("media status: ") + GStreamerPlayer::stringForMediaStatus(status));
    if (status == GStreamerPlayer::Loaded) {
        printLine(QStringLiteral("playing from: ") + mWrapper->getCurrentUrl().toString());
        if (!mWrapper->play(0))
            QCoreApplication::exit(1);
    }
    if (status == GStreamerPlayer::EndOfMedia)
        itemEnded();
}

// The wrapper announces each new item with an empty report (no total); those are not printed.
void ItemSequencePlayer::bufferProgress(qreal fraction, qint64 downloadedBytes, qint64 totalBytes)
{
    const int percent = int(fraction * 100);
    if (totalBytes <= 0 || percent / kProgressStepPercent <= mPrintedStep)
        return;
    mPrintedStep = percent / kProgressStepPercent;
    printLine(QStringLiteral("downloaded %1 % (%2 of %3 bytes)").arg(percent).arg(downloadedBytes).arg(totalBytes));
}

// The next item starts once its preload is over: started then, it is found in the stream
// cache. The wrapper looks the next item up when the current download finishes, seconds
// before the current item ends, so by now a preload is running, done, or was not needed.
void ItemSequencePlayer::itemEnded()
{
    if (++mCurrent >= mItems.size()) {
        QCoreApplication::exit(0);
        return;
    }
    MediaV2::StreamingMediaPreloader* preloader = mWrapper->preloader();
    if (preloader && preloader->state() < StreamingMediaBuffer::Finished) {
        printLine(QStringLiteral("waiting for the preload of the next item"));
        // Queued: the preloader is still in its own completion when it says it finished.
        connect(preloader, &MediaV2::StreamingMediaPreloader::finished, this, [this] {
            printPreloadState();
            startItem();
        }, Qt::ConnectionType(Qt::QueuedConnection | Qt::SingleShotConnection));
        return;
    }
    printPreloadState();
    startItem();
}

void ItemSequencePlayer::printPreloadState()
{
    const MediaV2::StreamingMediaPreloader* preloader = mWrapper->preloader();
    printLine(QStringLiteral("preload of the next item: ")
              + (preloader ? StreamingMediaBuffer::nameForState(preloader->state()) : QStringLiteral("none started")));
}
