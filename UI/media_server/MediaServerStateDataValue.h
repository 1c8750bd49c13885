#pragma once

#include "UI/media_server/MediaServerStateDataValueData.h"
#include "platform/datavalue/TypedDataValue.h"

namespace MediaV2 {

struct MediaServerStateTraits
{
    static QVariant toVariant(const MediaServerStateDataValueData& v) { return v.toVariant(); }
    static bool fromVariant(const QVariant& variant, MediaServerStateDataValueData* v) { return v->setFromVariant(variant); }
    static QString toString(const MediaServerStateDataValueData& v) { return v.toString(); }
};

// The data value holding the published server state pair (MEDIA2_serverState). Invalid until
// the player first sets it. Setting the pair it already holds never broadcasts, so the player
// may re-publish on every state entry without waking its clients.
//
// Thread: written only from the server player's thread (setState takes the event lock); read
// from any thread (retrieveState and serverState take the state lock). Emits
// mediaServerStateChanged() together with valueChanged() for each committed change.
class MediaServerStateDataValue : public TypedDataValue<MediaServerStateDataValueData, MediaServerStateTraits>
{
    Q_OBJECT
public:
    explicit MediaServerStateDataValue(const QString& name, bool externallyWritable = false, int broadcastPolicy = 1);

    void setState(MediaServerState state, MediaServerError error);
    // False, and nothing written, while the value is invalid; otherwise writes the pair into
    // the pointers that are not null.
    bool retrieveState(MediaServerState* state, MediaServerError* error) const;
    // The current state; *valid (when given) says whether there is one.
    MediaServerState serverState(bool* valid = nullptr) const;

signals:
    void mediaServerStateChanged(MediaV2::MediaServerStateDataValue* value);

protected:
    void broadcastChange() override;
};

} // namespace MediaV2
