#pragma once

#include <QDBusAbstractAdaptor>
#include <QDBusMessage>
#include <QDBusObjectPath>
#include <QVariantMap>

class MprisBridge;

// org.mpris.MediaPlayer2.Player on the bridge: the properties read the bridge's view of the
// server; the methods hand the call to the bridge, which answers it once the media service has
// (see MprisBridge). Rate is fixed at 1.0; there is no next or previous item to go to.
//
// Thread: main thread. Owned by the bridge it is served on.
class MprisPlayerAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2.Player")
    Q_PROPERTY(QString PlaybackStatus READ playbackStatus)
    Q_PROPERTY(double Rate READ rate WRITE setRate)
    Q_PROPERTY(double MinimumRate READ rate)
    Q_PROPERTY(double MaximumRate READ rate)
    Q_PROPERTY(QVariantMap Metadata READ metadata)
    Q_PROPERTY(double Volume READ volume WRITE setVolume)
    Q_PROPERTY(qlonglong Position READ position)
    Q_PROPERTY(bool CanGoNext READ canGoNext)
    Q_PROPERTY(bool CanGoPrevious READ canGoNext)
    Q_PROPERTY(bool CanPlay READ canPlay)
    Q_PROPERTY(bool CanPause READ canPlay)
    Q_PROPERTY(bool CanSeek READ canSeek)
    Q_PROPERTY(bool CanControl READ canControl)
public:
    explicit MprisPlayerAdaptor(MprisBridge* bridge);

    QString playbackStatus() const;
    double rate() const { return 1.0; }
    void setRate(double) {}
    QVariantMap metadata() const;
    double volume() const;
    void setVolume(double volume);
    qlonglong position() const;
    bool canGoNext() const { return false; }
    // Always: controllers such as playerctl send nothing, not even an open, to a player that
    // says it cannot be controlled, and the convention fixes it for the player's lifetime.
    bool canControl() const { return true; }
    // While an item is loaded.
    bool canPlay() const;
    bool canSeek() const;

public slots:
    void Next() {}
    void Previous() {}
    void Play(const QDBusMessage& message);
    void Pause(const QDBusMessage& message);
    void PlayPause(const QDBusMessage& message);
    void Stop(const QDBusMessage& message);
    void Seek(qlonglong Offset, const QDBusMessage& message);
    void SetPosition(const QDBusObjectPath& TrackId, qlonglong Position, const QDBusMessage& message);
    void OpenUri(const QString& Uri, const QDBusMessage& message);

signals:
    void Seeked(qlonglong Position);

private:
    MprisBridge* mBridge;
};
