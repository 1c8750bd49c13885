#include "mpris/MprisBridge.h"

#include "media_server/GStreamerServerPlayer.h"
#include "media_server/MediaServerDataValues.h"
#include "mpris/MprisPlayerAdaptor.h"
#include "mpris/MprisProperties.h"
#include "mpris/MprisRequestQueue.h"
#include "mpris/MprisRootAdaptor.h"
#include "platform/config/ConfigBoolValue.h"
#include "platform/log/LogLine.h"

#include <QDBusConnectionInterface>
#include <QJsonDocument>
#include <QJsonObject>
#include <QUrl>

using namespace MediaV2;

namespace {

ConfigBoolValue sEnabled("mpris/enabled", true, "offer the desktop media-player interface (MPRIS2) for playerctl and media keys");

const char kPlayerInterface[] = "org.mpris.MediaPlayer2.Player";

MediaV2::GStreamerServerPlayer* player()
{
    return MediaV2::GStreamerServerPlayer::instance();
}

} // namespace

MprisBridge::MprisBridge(QObject* parent)
    : QObject(parent)
{
}

MprisBridge::~MprisBridge()
{
    if (mConnection.isConnected() && mPlayer) {
        mConnection.unregisterService(busName());
        mConnection.unregisterObject(objectPath());
    }
}

bool MprisBridge::enabled()
{
    return sEnabled.value();
}

bool MprisBridge::start(const QDBusConnection& connection, QString* error)
{
    mConnection = connection;
    new MprisRootAdaptor(this);
    mPlayer = new MprisPlayerAdaptor(this);
    mRequests = std::make_unique<MprisRequestQueue>(mConnection);
    if (!mConnection.registerObject(objectPath(), this, QDBusConnection::ExportAdaptors)) {
        *error = QStringLiteral("cannot serve %1").arg(objectPath());
        return false;
    }
    if (!mConnection.registerService(busName())) {
        *error = QStringLiteral("cannot own %1 (%2)").arg(busName(), mConnection.lastError().message());
        mConnection.unregisterObject(objectPath());
        return false;
    }
    mLastState = state();
    watch(&MEDIA2_serverState, &MprisBridge::stateChanged);
    watch(&MEDIA2_nowPlayingTitle, &MprisBridge::sendChangedProperties);
    mSentProperties = playerProperties();
    return true;
}

void MprisBridge::watch(DataValue* value, void (MprisBridge::*slot)())
{
    connect(value, &DataValue::valueChanged, this, slot);
}

MediaV2::MediaServerState MprisBridge::state() const
{
    bool valid = false;
    const MediaV2::MediaServerState current = MEDIA2_serverState.serverState(&valid);
    return valid ? current : NoMedia;
}

QVariantMap MprisBridge::playerProperties() const
{
    const MediaV2::MediaServerState current = state();
    const bool loaded = MprisProperties::itemLoaded(current);
    const MediaV2::MediaPlaybackMetadata& item = player()->currentItem();
    const QDBusObjectPath track = mTrackNumber > 0 ? MprisProperties::trackId(mTrackNumber) : MprisProperties::noTrack();
    const QString title = MEDIA2_nowPlayingTitle.isValid() ? MEDIA2_nowPlayingTitle.value() : QString();
    const QString before = mSentProperties.value(QStringLiteral("PlaybackStatus"), QStringLiteral("Stopped")).toString();
    return {{QStringLiteral("PlaybackStatus"), MprisProperties::playbackStatus(current, before)},
            {QStringLiteral("Metadata"), mTrackNumber > 0 ? MprisProperties::metadata(track, item.url, title, player()->currentDurationMs())
                                                          : MprisProperties::metadata(track, QString(), QString(), -1)},
            {QStringLiteral("Volume"), volume()},
            {QStringLiteral("CanPlay"), loaded},
            {QStringLiteral("CanPause"), loaded},
            {QStringLiteral("CanSeek"), loaded && !item.liveStream}};
}

qint64 MprisBridge::positionUs() const
{
    return MEDIA2_elapsedTime.isValid() ? qint64(MEDIA2_elapsedTime.value()) * 1000 : 0;
}

double MprisBridge::volume() const
{
    return player()->volume();
}

void MprisBridge::setVolume(double volume)
{
    player()->setVolume(volume);
    sendChangedProperties();
}

void MprisBridge::stateChanged()
{
    const MediaV2::MediaServerState current = state();
    if (current == Loading && mLastState != Loading)
        ++mTrackNumber;   // every load is a new track, even of the same URL
    if (mLastState == Seeking && current != Seeking)
        emit mPlayer->Seeked(positionUs());
    mLastState = current;
    sendChangedProperties();
    if (mPauseWhenPlaying && current != Buffering && current != TryingToPlay) {
        mPauseWhenPlaying = false;
        if (current == Playing)
            mRequests->send({{QStringLiteral("pause"), {}}}, QDBusMessage());
    }
}

void MprisBridge::sendChangedProperties()
{
    const QVariantMap now = playerProperties();
    QVariantMap changed;
    for (auto it = now.cbegin(); it != now.cend(); ++it)
        if (mSentProperties.value(it.key()) != it.value())
            changed.insert(it.key(), it.value());
    if (changed.isEmpty())
        return;
    mSentProperties = now;
    QDBusMessage signal = QDBusMessage::createSignal(objectPath(), QStringLiteral("org.freedesktop.DBus.Properties"),
                                                     QStringLiteral("PropertiesChanged"));
    signal << QString::fromLatin1(kPlayerInterface) << changed << QStringList();
    mConnection.send(signal);
}

void MprisBridge::request(const QString& method, const QVariantMap& arguments, const QDBusMessage& call)
{
    call.setDelayedReply(true);
    mRequests->send({{method, arguments}}, call);
}

void MprisBridge::play(const QDBusMessage& call)
{
    mPauseWhenPlaying = false;
    if (MprisProperties::itemLoaded(state()))
        request(QStringLiteral("play"), {{QStringLiteral("milliSecondsStartPos"), 0}}, call);
}

// While the item buffers or is on its way to playing, the server goes on to play by itself
// once it can, which would undo a pause sent now. The pause is kept and sent when the state
// reaches Playing; the call is answered at once, since a stalled network can keep the item
// buffering past any caller's time-out.
void MprisBridge::pause(const QDBusMessage& call)
{
    const MediaV2::MediaServerState current = state();
    if (current == Buffering || current == TryingToPlay)
        mPauseWhenPlaying = true;
    else if (MprisProperties::itemLoaded(current))
        request(QStringLiteral("pause"), {}, call);
}

void MprisBridge::playPause(const QDBusMessage& call)
{
    const MediaV2::MediaServerState current = state();
    if (current == Playing || current == TryingToPlay || current == Buffering)
        pause(call);
    else
        play(call);
}

void MprisBridge::stop(const QDBusMessage& call)
{
    mPauseWhenPlaying = false;
    if (state() != NoMedia)
        request(QStringLiteral("stop"), {}, call);
}

void MprisBridge::seekBy(qint64 offsetUs, const QDBusMessage& call)
{
    seekTo(qMax<qint64>(0, positionUs() / 1000 + offsetUs / 1000), call);
}

void MprisBridge::setPosition(const QDBusObjectPath& track, qint64 positionUs, const QDBusMessage& call)
{
    if (mTrackNumber > 0 && track == MprisProperties::trackId(mTrackNumber) && positionUs >= 0)
        seekTo(positionUs / 1000, call);
}

// Past the end there is no next item to go to, so nothing happens.
void MprisBridge::seekTo(qint64 positionMs, const QDBusMessage& call)
{
    const qint64 lengthMs = player()->currentDurationMs();
    if (!playerProperties().value(QStringLiteral("CanSeek")).toBool() || (lengthMs > 0 && positionMs > lengthMs))
        return;
    request(QStringLiteral("seek"), {{QStringLiteral("milliSecondsPos"), int(qMin<qint64>(positionMs, INT_MAX))}}, call);
}

void MprisBridge::openUri(const QString& uri, const QDBusMessage& call)
{
    const QUrl url(uri);
    if (!url.isValid() || !MprisRootAdaptor::supportedUriSchemes().contains(url.scheme())) {
        call.setDelayedReply(true);
        mConnection.send(call.createErrorReply(QDBusError::NotSupported,
                                               QStringLiteral("cannot open \"%1\": only %2 URIs can be opened")
                                                   .arg(uri, MprisRootAdaptor::supportedUriSchemes().join(QStringLiteral(" and ")))));
        return;
    }
    mPauseWhenPlaying = false;
    const QString item = QString::fromUtf8(QJsonDocument(QJsonObject{{QStringLiteral("url"), uri}}).toJson(QJsonDocument::Compact));
    call.setDelayedReply(true);
    mRequests->send({{QStringLiteral("loadMedia"), {{QStringLiteral("playbackMetadata"), item}, {QStringLiteral("onDeckMetadata"), QString()}}},
                     {QStringLiteral("play"), {{QStringLiteral("milliSecondsStartPos"), 0}}}},
                    call);
}
