#include "media_server/GStreamerMediaMetadata.h"

#include "platform/core/TJson.h"

namespace MediaV2 {

void GStreamerMediaMetadata::clear()
{
    *this = GStreamerMediaMetadata();
}

bool GStreamerMediaMetadata::setFromTags(const GstTagList* tags)
{
    return setStringField(tags, GST_TAG_TITLE, title) || setStringField(tags, GST_TAG_ARTIST, artist)
        || setStringField(tags, GST_TAG_ALBUM_ARTIST, albumArtist) || setStringField(tags, GST_TAG_ALBUM, album)
        || setUintField(tags, GST_TAG_BITRATE, bitrate) || setStringField(tags, GST_TAG_CODEC, codec)
        || setStringField(tags, GST_TAG_AUDIO_CODEC, audioCodec)
        || setStringField(tags, GST_TAG_CONTAINER_FORMAT, containerFormat)
        || setStringField(tags, GST_TAG_ENCODER, encoder) || setUintField(tags, GST_TAG_ENCODER_VERSION, encoderVersion);
}

bool GStreamerMediaMetadata::setStringField(const GstTagList* tags, const char* tag, QString& field)
{
    gchar* raw = nullptr;
    if (!gst_tag_list_get_string(tags, tag, &raw))
        return false;
    const QString text = QString::fromUtf8(raw);
    g_free(raw);
    if (text.isEmpty() || text == field)
        return false;
    field = text;
    return true;
}

bool GStreamerMediaMetadata::setUintField(const GstTagList* tags, const char* tag, quint32& field)
{
    guint value = 0;
    if (!gst_tag_list_get_uint(tags, tag, &value) || value == 0 || value == field)
        return false;
    field = value;
    return true;
}

QString GStreamerMediaMetadata::toJSON() const
{
    // Written member by member: a map would sort the keys, and readers of the log expect the
    // title first.
    const QList<QPair<const char*, QVariant>> members = {
        {"title", title}, {"artist", artist}, {"albumArtist", albumArtist}, {"album", album},
        {"bitrate", bitrate}, {"codec", codec}, {"audioCodec", audioCodec},
        {"containerFormat", containerFormat}, {"encoder", encoder}, {"encoderVersion", encoderVersion}};
    QByteArray json = "{";
    for (const auto& member : members) {
        if (json.size() > 1)
            json += ',';
        json += '"' + QByteArray(member.first) + "\":" + TJson::Serializer::serialize(member.second);
    }
    return QString::fromUtf8(json + '}');
}

} // namespace MediaV2
