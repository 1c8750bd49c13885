#include "mpris/MprisPlayerAdaptor.h"

#include "mpris/MprisBridge.h"

MprisPlayerAdaptor::MprisPlayerAdaptor(MprisBridge* bridge)
    : QDBusAbstractAdaptor(bridge)
    , mBridge(bridge)
{
}

QString MprisPlayerAdaptor::playbackStatus() const
{
    return mBridge->playerProperties().value(QStringLiteral("PlaybackStatus")).toString();
}

QVariantMap MprisPlayerAdaptor::metadata() const
{
    return mBridge->playerProperties().value(QStringLiteral("Metadata")).toMap();
}

double MprisPlayerAdaptor::volume() const
{
    return mBridge->volume();
}

void MprisPlayerAdaptor::setVolume(double volume)
{
    mBridge->setVolume(volume);
}

qlonglong MprisPlayerAdaptor::position() const
{
    return mBridge->positionUs();
}

bool MprisPlayerAdaptor::canPlay() const
{
    return mBridge->playerProperties().value(QStringLiteral("CanPlay")).toBool();
}

bool MprisPlayerAdaptor::canSeek() const
{
    return mBridge->playerProperties().value(QStringLiteral("CanSeek")).toBool();
}

void MprisPlayerAdaptor::Play(const QDBusMessage& message)
{
    mBridge->play(message);
}

void MprisPlayerAdaptor::Pause(const QDBusMessage& message)
{
    mBridge->pause(message);
}

void MprisPlayerAdaptor::PlayPause(const QDBusMessage& message)
{
    mBridge->playPause(message);
}

void MprisPlayerAdaptor::Stop(const QDBusMessage& message)
{
    mBridge->stop(message);
}

void MprisPlayerAdaptor::Seek(qlonglong Offset, const QDBusMessage& message)
{
    mBridge->seekBy(Offset, message);
}

void MprisPlayerAdaptor::SetPosition(const QDBusObjectPath& TrackId, qlonglong Position, const QDBusMessage& message)
{
    mBridge->setPosition(TrackId, Position, message);
}

void MprisPlayerAdaptor::OpenUri(const QString& Uri, const QDBusMessage& message)
{
    mBridge->openUri(Uri, message);
}
