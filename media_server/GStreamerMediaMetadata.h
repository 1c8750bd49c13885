#pragma once

#include <QString>

#include <gst/gst.h>

namespace MediaV2 {

// What the stream's tags say about the current item (title, artist, codec, ...), collected
// from the pipeline's tag messages. One tag list changes at most one field: the fields are
// tried in order and the first that changes ends the update, so a list carrying a new title
// and a new bitrate updates only the title and the bitrate waits for a later list. An empty or
// zero tag never clears a field.
//
// A plain value type, copied to whoever asks; any thread.
class GStreamerMediaMetadata
{
public:
    QString title;
    QString artist;
    QString albumArtist;
    QString album;
    quint32 bitrate = 0;
    QString codec;
    QString audioCodec;
    QString containerFormat;
    QString encoder;
    quint32 encoderVersion = 0;

    void clear();
    // True when a field changed.
    bool setFromTags(const GstTagList* tags);
    static bool setStringField(const GstTagList* tags, const char* tag, QString& field);
    static bool setUintField(const GstTagList* tags, const char* tag, quint32& field);
    // The fields as a JSON object, in the order above.
    QString toJSON() const;
};

} // namespace MediaV2
