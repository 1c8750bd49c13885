#pragma once

#include <QMetaType>
#include <QString>

namespace MediaV2 {

// What a client tells the server about one item it wants played: where it comes from, how to
// buffer it and where to start. It arrives as a JSON object and is handed back as one.
//
// Thread: a plain value type, copied between the playback objects; use it from any thread, a
// copy is independent of its source. Failure: parsing never fails; missing, mistyped or
// malformed input leaves the affected fields 0, empty or false.
class MediaPlaybackMetadata
{
public:
    // A record nobody has filled in: valid is false, and bitrate and both positions are -1,
    // meaning "unknown", so they cannot be mistaken for a real zero.
    MediaPlaybackMetadata() = default;
    // Reads a client's JSON object. Every field is set, from its key or to 0/""/false when the
    // key is missing or its value does not convert; even malformed text gives a record marked
    // valid, because the client sent one and the playback objects decide what is usable.
    explicit MediaPlaybackMetadata(const QString& json);

    // A compact JSON object with every field except valid, members in sorted key order.
    QString toJSON() const;

    qint32 bitrate = -1;
    qint32 bufferBytes = 0;
    qint32 bufferMs = 0;
    qint64 startPosition = -1;
    qint64 duration = -1;
    QString cacheKey;
    QString url;
    QString id;
    qint32 statsCategory = 0;
    QString source;
    bool pauseWhenBuffered = false;
    bool liveStream = false;
    bool valid = false;
    bool shouldCache = false;
    bool isExplicit = false;
};

} // namespace MediaV2

Q_DECLARE_METATYPE(MediaV2::MediaPlaybackMetadata)
