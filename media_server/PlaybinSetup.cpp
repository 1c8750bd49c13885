#include "media_server/PlaybinSetup.h"

#include "platform/config/ConfigStringValue.h"
#include "platform/log/LogLine.h"

namespace {

// A bin description for the audio sink; empty means the default, "autoaudiosink". Tests and
// the demo record to a file with it.
ConfigStringValue sAudioSink("gstreamer/audio_sink", QString(),
    "GStreamer bin description of the audio output; empty: autoaudiosink");

// playbin3's flags: audio output, and the software volume it would insert (see applyAudioSink).
constexpr guint kPlayFlagAudio = 0x2;
constexpr guint kPlayFlagSoftVolume = 0x10;

// uridecodebin3 of this GStreamer release asks its source bin to split the item into
// elementary streams itself. On that path decodebin3 sometimes never links its input when the
// machine is busy: the item stops before it reaches the sink, no error is posted and the
// pipeline never finishes pre-rolling. Left to decodebin3's own parser, items load reliably.
void keepParsingInTheDecoder(GstElement*, GstElement* element, gpointer)
{
    GstElementFactory* factory = gst_element_get_factory(element);
    if (factory && g_str_equal(GST_OBJECT_NAME(factory), "urisourcebin"))
        g_object_set(element, "parse-streams", FALSE, nullptr);
}

// The player's volume and mute live in a "volume" element at the head of the audio sink bin,
// behind playbin3's audio queue, so a mute or unmute is heard within a buffer. playbin3's own
// software volume sits there too, but this GStreamer release never releases it: every pipeline
// left one volume element behind, and the server builds a pipeline per item.
constexpr char kVolumeName[] = "player_volume";
constexpr char kDefaultSink[] = "autoaudiosink";

GstElement* sinkBin(const QString& sink, GError** error)
{
    const QString description = QStringLiteral("volume name=%1 ! %2").arg(QLatin1String(kVolumeName), sink);
    return gst_parse_bin_from_description(description.toUtf8().constData(), TRUE, error);
}

// The configured sink, or the default one when none is configured or the configured one is
// invalid (reported once; without a sound card the default falls back to a silent sink).
GstElement* audioSinkBin()
{
    const QString configured = sAudioSink.value();
    GError* error = nullptr;
    GstElement* bin = configured.isEmpty() ? nullptr : sinkBin(configured, &error);
    if (!configured.isEmpty() && !bin) {
        LOG_ERROR << "invalid gstreamer/audio_sink \"" << configured << "\": "
                  << (error ? QString::fromUtf8(error->message) : QStringLiteral("no element"))
                  << "; using the default audio sink";
    }
    g_clear_error(&error);
    if (!bin)
        bin = sinkBin(QLatin1String(kDefaultSink), &error);
    if (!bin) {
        LOG_ERROR << "no audio sink bin: " << (error ? QString::fromUtf8(error->message) : QStringLiteral("no element"))
                  << "; GStreamer's base plugins are incomplete, playing without volume control";
    }
    g_clear_error(&error);
    return bin;
}

// Sets the sink and answers its volume element, which the playbin owns from then on.
GstElement* applyAudioSink(GstElement* playbin)
{
    GstElement* bin = audioSinkBin();
    if (!bin)
        return nullptr;
    GstElement* volume = gst_bin_get_by_name(GST_BIN(bin), kVolumeName);
    g_object_set(playbin, "audio-sink", bin, nullptr);
    gst_object_unref(volume);
    return volume;
}

} // namespace

namespace MediaV2::PlaybinSetup {

GstElement* configure(GstElement* playbin)
{
    guint flags = 0;
    g_object_get(playbin, "flags", &flags, nullptr);
    g_object_set(playbin, "flags", (flags | kPlayFlagAudio) & ~kPlayFlagSoftVolume, nullptr);
    g_signal_connect(playbin, "element-setup", G_CALLBACK(&keepParsingInTheDecoder), nullptr);
    return applyAudioSink(playbin);
}

} // namespace MediaV2::PlaybinSetup
