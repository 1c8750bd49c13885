#pragma once

#include <QDBusAbstractAdaptor>
#include <QStringList>

// org.mpris.MediaPlayer2: who the player is. A headless server has no window to raise and is
// not quit by a desktop's media controls, so Raise and Quit do nothing.
//
// Thread: main thread. Owned by the object it is served on.
class MprisRootAdaptor : public QDBusAbstractAdaptor
{
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.mpris.MediaPlayer2")
    Q_PROPERTY(bool CanQuit READ canQuit)
    Q_PROPERTY(bool CanRaise READ canRaise)
    Q_PROPERTY(bool HasTrackList READ hasTrackList)
    Q_PROPERTY(QString Identity READ identity)
    Q_PROPERTY(QStringList SupportedUriSchemes READ supportedUriSchemes)
    Q_PROPERTY(QStringList SupportedMimeTypes READ supportedMimeTypes)
public:
    explicit MprisRootAdaptor(QObject* parent);

    bool canQuit() const { return false; }
    bool canRaise() const { return false; }
    bool hasTrackList() const { return false; }
    QString identity() const { return QStringLiteral("CabinMediaServer2"); }
    // What OpenUri takes: the downloads speak HTTP only.
    static QStringList supportedUriSchemes();
    // What the installed decoders play.
    QStringList supportedMimeTypes() const;

public slots:
    void Raise() {}
    void Quit() {}
};
