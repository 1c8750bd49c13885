#pragma once

#include "UI/media_server/MediaServerState.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QObject>
#include <QVariantMap>

#include <memory>

class DataValue;
class MprisPlayerAdaptor;
class MprisRequestQueue;

// The server as a desktop media player: org.mpris.MediaPlayer2.CabinMediaServer2 at
// /org/mpris/MediaPlayer2, so that `playerctl`, media keys and desktop shells control it like
// any other player.
//
// State: read from the published values (MEDIA2_serverState, MEDIA2_nowPlayingTitle,
// MEDIA2_elapsedTime) and the loaded item; every change of a Player property but Position is
// sent in one PropertiesChanged signal, and leaving Seeking sends Seeked with the position.
// Each load is a new track id.
//
// Control: every method becomes MediaServer2 requests sent through the process's own service
// (MprisRequestQueue), so the bridge can only move the player where a client could; the D-Bus
// call is answered once the service has answered. What the convention says has no effect
// (playing with nothing loaded, seeking a live stream or past the end, a position for another
// track) is answered at once without a request. A pause while the item buffers or is about to
// play is answered at once and carried out when it plays (the server would resume by itself).
//
// Off when "mpris/enabled" is false. Failure: start() is false with a one-line reason when the
// name cannot be had; the server runs on without the bridge.
//
// Thread: main thread. Owns its adaptors and the request queue; reads the data values under
// their own locks.
class MprisBridge : public QObject
{
    Q_OBJECT
public:
    explicit MprisBridge(QObject* parent = nullptr);
    ~MprisBridge() override;

    static bool enabled();
    static QString busName() { return QStringLiteral("org.mpris.MediaPlayer2.CabinMediaServer2"); }
    static QString objectPath() { return QStringLiteral("/org/mpris/MediaPlayer2"); }

    bool start(const QDBusConnection& connection, QString* error);

    // The Player properties but Position and Volume, by their D-Bus names.
    QVariantMap playerProperties() const;
    qint64 positionUs() const;
    double volume() const;
    void setVolume(double volume);

    void play(const QDBusMessage& call);
    void pause(const QDBusMessage& call);
    void playPause(const QDBusMessage& call);
    void stop(const QDBusMessage& call);
    void seekBy(qint64 offsetUs, const QDBusMessage& call);
    void setPosition(const QDBusObjectPath& track, qint64 positionUs, const QDBusMessage& call);
    void openUri(const QString& uri, const QDBusMessage& call);

private slots:
    void stateChanged();
    void sendChangedProperties();

private:
    MediaV2::MediaServerState state() const;
    void request(const QString& method, const QVariantMap& arguments, const QDBusMessage& call);
    void seekTo(qint64 positionMs, const QDBusMessage& call);
    void followItem();
    void watch(DataValue* value, void (MprisBridge::*slot)());

    QDBusConnection mConnection{QString()};
    MprisPlayerAdaptor* mPlayer = nullptr;   // owned as this object's child
    std::unique_ptr<MprisRequestQueue> mRequests;
    QVariantMap mSentProperties;   // as last sent in PropertiesChanged
    MediaV2::MediaServerState mLastState = MediaV2::NoMedia;
    quint64 mTrackNumber = 0;      // 0: nothing loaded yet
    QString mTrackKey;             // the item mTrackNumber stands for
    bool mPauseWhenPlaying = false;   // a pause asked for while the server was about to play
};
