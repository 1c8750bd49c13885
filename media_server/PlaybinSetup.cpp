#include "media_server/PlaybinSetup.h"

#include "platform/config/ConfigStringValue.h"
#include "platform/log/LogLine.h"

namespace {

// A bin description for playbin3's audio sink; empty keeps playbin3's own choice. Tests and
// the demo record to a file with it.
ConfigStringValue sAudioSink("gstreamer/audio_sink", QString());

// playbin3's flag that enables audio output.
constexpr int kPlayFlagAudio = 0x2;

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

// An invalid description is reported once and playbin3 keeps its own sink (which, without a
// sound card, falls back to a silent one: not an error).
void applyAudioSink(GstElement* playbin)
{
    const QString description = sAudioSink.value();
    if (description.isEmpty())
        return;
    GError* error = nullptr;
    GstElement* sink = gst_parse_bin_from_description(description.toUtf8().constData(), TRUE, &error);
    if (!sink) {
        LOG_ERROR << "invalid gstreamer/audio_sink \"" << description << "\": "
                  << (error ? QString::fromUtf8(error->message) : QStringLiteral("no element"))
                  << "; using playbin3's own audio sink";
        g_clear_error(&error);
        return;
    }
    g_clear_error(&error);
    g_object_set(playbin, "audio-sink", sink, nullptr);
}

} // namespace

namespace MediaV2::PlaybinSetup {

void configure(GstElement* playbin)
{
    gint flags = 0;
    g_object_get(playbin, "flags", &flags, nullptr);
    g_object_set(playbin, "flags", flags | kPlayFlagAudio, nullptr);
    g_signal_connect(playbin, "element-setup", G_CALLBACK(&keepParsingInTheDecoder), nullptr);
    applyAudioSink(playbin);
}

} // namespace MediaV2::PlaybinSetup
