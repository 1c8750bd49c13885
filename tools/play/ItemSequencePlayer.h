#pragma once

#include "media_server/CachingGStreamerWrapper.h"
#include "media_server/MediaPlaybackMetadata.h"

#include <QList>
#include <QObject>

// Plays items one after another through the source-selection wrapper, as the server player
// will: each item is set together with the one expected after it, and played once the engine
// has loaded it. Between two items it waits until the preload of the next one has finished,
// so that the next item is found in the stream cache. Every change is printed to stdout as it
// happens: the engine's state (with the play position) and media status, the download's
// progress once per 10 %, and the URL the engine was given for each item.
//
// Thread: main thread, with the wrapper. Owns nothing; the wrapper must outlive it. Failure:
// ends the event loop with 1 when the engine reaches an error state, with 0 once the last
// item has played to its end.
class ItemSequencePlayer : public QObject
{
    Q_OBJECT
public:
    ItemSequencePlayer(MediaV2::CachingGStreamerWrapper* wrapper, const QList<MediaV2::MediaPlaybackMetadata>& items);

    // Sets the first item; the rest follows from the wrapper's signals.
    void start();

private:
    void startItem();
    void stateChanged(MediaV2::GStreamerPlayer::State state);
    void mediaStatusChanged(MediaV2::GStreamerPlayer::MediaStatus status);
    void bufferProgress(qreal fraction, qint64 downloadedBytes, qint64 totalBytes);
    void itemEnded();
    void printPreloadState();
    MediaV2::MediaPlaybackMetadata onDeckItem() const;

    MediaV2::CachingGStreamerWrapper* mWrapper;
    QList<MediaV2::MediaPlaybackMetadata> mItems;
    int mCurrent = 0;
    int mPrintedStep = -1;   // the last progress step printed for the current item
};
