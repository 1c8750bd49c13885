#include "UI/media_server/MediaServerStateDataValueData.h"

namespace MediaV2 {

QString MediaServerStateDataValueData::toString() const
{
    return QStringLiteral("%1, %2").arg(MediaServerUtils::nameForState(state), MediaServerUtils::nameForError(error));
}

QVariant MediaServerStateDataValueData::toVariant() const
{
    return QVariantList{int(state), int(error)};
}

bool MediaServerStateDataValueData::setFromVariant(const QVariant& variant)
{
    // Only real lists: Qt would also turn a text into a list of its characters.
    const int type = variant.userType();
    if (type != QMetaType::QVariantList && type != QMetaType::QStringList)
        return false;
    const QVariantList list = variant.toList();
    state = MediaServerState(list.value(0).toInt());
    error = MediaServerError(list.value(1).toInt());
    return true;
}

} // namespace MediaV2
