#include "mpris/MprisRootAdaptor.h"

MprisRootAdaptor::MprisRootAdaptor(QObject* parent)
    : QDBusAbstractAdaptor(parent)
{
}

QStringList MprisRootAdaptor::supportedUriSchemes()
{
    return {QStringLiteral("http"), QStringLiteral("https")};
}

QStringList MprisRootAdaptor::supportedMimeTypes() const
{
    return {QStringLiteral("audio/mpeg"), QStringLiteral("audio/ogg"), QStringLiteral("audio/x-vorbis+ogg"),
            QStringLiteral("audio/opus"), QStringLiteral("audio/flac"), QStringLiteral("audio/x-flac"),
            QStringLiteral("audio/wav"), QStringLiteral("audio/x-wav")};
}
