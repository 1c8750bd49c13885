#include "UI/media_server/MediaServerStateDataValue.h"

namespace MediaV2 {

MediaServerStateDataValue::MediaServerStateDataValue(const QString& name, bool externallyWritable, int broadcastPolicy)
    : TypedDataValue(name, externallyWritable, broadcastPolicy)
{
}

void MediaServerStateDataValue::setState(MediaServerState state, MediaServerError error)
{
    EventLocker guard(this);
    MediaServerStateDataValueData pair;
    pair.state = state;
    pair.error = error;
    setValueNoLock(pair);
}

bool MediaServerStateDataValue::retrieveState(MediaServerState* state, MediaServerError* error) const
{
    ConditionalLocker guard(this);
    if (!isValidNoLock())
        return false;
    if (state)
        *state = valueNoLock().state;
    if (error)
        *error = valueNoLock().error;
    return true;
}

MediaServerState MediaServerStateDataValue::serverState(bool* valid) const
{
    ConditionalLocker guard(this);
    if (valid)
        *valid = isValidNoLock();
    return valueNoLock().state;
}

void MediaServerStateDataValue::broadcastChange()
{
    TypedDataValue::broadcastChange();
    emit mediaServerStateChanged(this);
}

} // namespace MediaV2
