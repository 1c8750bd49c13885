#include "mpris/MprisProperties.h"

using namespace MediaV2;

namespace MprisProperties {

QDBusObjectPath noTrack()
{
    return QDBusObjectPath(QStringLiteral("/org/mpris/MediaPlayer2/TrackList/NoTrack"));
}

QDBusObjectPath trackId(quint64 number)
{
    return QDBusObjectPath(QStringLiteral("/com/kelvramotors/MediaServer2/Track/%1").arg(number));
}

QString playbackStatus(MediaV2::MediaServerState state, const QString& before)
{
    switch (state) {
    case TryingToPlay:
    case Playing:
    case Buffering: return QStringLiteral("Playing");
    case TryingToPause:
    case Paused: return QStringLiteral("Paused");
    case Seeking: return before;
    default: return QStringLiteral("Stopped");
    }
}

bool itemLoaded(MediaV2::MediaServerState state)
{
    switch (state) {
    case Loaded:
    case TryingToPlay:
    case TryingToPause:
    case Seeking:
    case Playing:
    case Paused:
    case Buffering: return true;
    default: return false;
    }
}

QVariantMap metadata(const QDBusObjectPath& track, const QString& url, const QString& title, qint64 lengthMs)
{
    QVariantMap map{{QStringLiteral("mpris:trackid"), QVariant::fromValue(track)}};
    if (!url.isEmpty())
        map.insert(QStringLiteral("xesam:url"), url);
    if (!title.isEmpty())
        map.insert(QStringLiteral("xesam:title"), title);
    if (lengthMs > 0)
        map.insert(QStringLiteral("mpris:length"), qint64(lengthMs * 1000));
    return map;
}

} // namespace MprisProperties
