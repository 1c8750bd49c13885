#include "media_server/MediaPlaybackMetadata.h"

#include "platform/core/TJson.h"

#include <QVariantMap>

namespace MediaV2 {

MediaPlaybackMetadata::MediaPlaybackMetadata(const QString& json)
{
    // A text that is not an object gives an empty map, so every field falls to 0/""/false.
    const QVariantMap map = TJson::Parser::parse(json.toUtf8(), nullptr, false).toMap();
    bitrate = map.value(QStringLiteral("bitrate")).toInt();
    bufferBytes = map.value(QStringLiteral("buffer-bytes")).toInt();
    bufferMs = map.value(QStringLiteral("buffer-ms")).toInt();
    // The client protocol carries positions as 32-bit ints, so they are read as such and a
    // larger value does not survive; the fields are 64 bits wide because the playback engine's
    // positions are, and the server writes those back.
    startPosition = map.value(QStringLiteral("startposition")).toInt();
    duration = map.value(QStringLiteral("duration")).toInt();
    cacheKey = map.value(QStringLiteral("cachekey")).toString();
    id = map.value(QStringLiteral("id")).toString();
    url = map.value(QStringLiteral("url")).toString();
    statsCategory = map.value(QStringLiteral("statscategory")).toInt();
    source = map.value(QStringLiteral("source")).toString();
    pauseWhenBuffered = map.value(QStringLiteral("pauseWhenBuffered")).toBool();
    liveStream = map.value(QStringLiteral("live-stream")).toBool();
    valid = true;
    shouldCache = map.value(QStringLiteral("should_cache")).toBool();
    isExplicit = map.value(QStringLiteral("is_explicit")).toBool();
}

QString MediaPlaybackMetadata::toJSON() const
{
    QVariantMap map;
    map.insert(QStringLiteral("bitrate"), bitrate);
    map.insert(QStringLiteral("buffer-bytes"), bufferBytes);
    map.insert(QStringLiteral("buffer-ms"), bufferMs);
    map.insert(QStringLiteral("startposition"), startPosition);
    map.insert(QStringLiteral("duration"), duration);
    map.insert(QStringLiteral("cachekey"), cacheKey);
    map.insert(QStringLiteral("url"), url);
    map.insert(QStringLiteral("statscategory"), statsCategory);
    map.insert(QStringLiteral("source"), source);
    map.insert(QStringLiteral("id"), id);
    map.insert(QStringLiteral("pauseWhenBuffered"), pauseWhenBuffered);
    map.insert(QStringLiteral("live-stream"), liveStream);
    map.insert(QStringLiteral("should_cache"), shouldCache);
    map.insert(QStringLiteral("is_explicit"), isExplicit);
    // The serializer writes UTF-8 and the constructor reads UTF-8, so decoding as UTF-8 keeps a
    // URL or title with non-ASCII characters intact through toJSON() and back.
    return QString::fromUtf8(TJson::Serializer::serialize(map, false));
}

} // namespace MediaV2
