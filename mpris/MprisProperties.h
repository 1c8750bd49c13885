#pragma once

#include "UI/media_server/MediaServerState.h"

#include <QDBusObjectPath>
#include <QVariantMap>

namespace MediaV2 {
struct MediaPlaybackMetadata;
}

// How the server's published state reads in the media-player convention desktops and
// `playerctl` speak. Pure functions: any thread.
namespace MprisProperties {

// The track id when nothing is loaded, fixed by the convention.
QDBusObjectPath noTrack();
// The id of the n-th item loaded since start; a new load is a new track even for the same URL.
QDBusObjectPath trackId(quint64 number);

// "Playing" while the item plays or is on its way to it (trying to play, buffering), "Paused"
// while it is paused or pausing, the status it had (`before`) while it seeks, and "Stopped" for
// every other state: a desktop shows a play that stops for a moment to buffer as playing.
QString playbackStatus(MediaV2::MediaServerState state, const QString& before);
// An item is ready to be played, paused or sought in these states; not while it loads, nor
// once it has ended, failed or been stopped.
bool itemLoaded(MediaV2::MediaServerState state);

// mpris:trackid, xesam:url, xesam:title (a title that is not empty) and mpris:length in
// microseconds (a length above 0 ms).
QVariantMap metadata(const QDBusObjectPath& track, const QString& url, const QString& title, qint64 lengthMs);

} // namespace MprisProperties
