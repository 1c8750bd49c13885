#pragma once

#include "UI/media_server/MediaServerState.h"

#include <QVariant>

namespace MediaV2 {

// The published pair: the server state and the error that goes with it. Its variant form is a
// list of two ints, [state, error] ("ai" on the bus); its text form "Playing, NoError".
// A plain value type, any thread.
struct MediaServerStateDataValueData
{
    MediaServerState state = NoMedia;
    MediaServerError error = NoError;

    QString toString() const;
    QVariant toVariant() const;
    // False, and the pair unchanged, when the variant is invalid or not a list; otherwise
    // element 0 is the state and element 1 the error, a missing element counting as 0.
    bool setFromVariant(const QVariant& variant);

    bool operator==(const MediaServerStateDataValueData& other) const
    {
        return state == other.state && error == other.error;
    }
};

} // namespace MediaV2
