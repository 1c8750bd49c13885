// The playbin3 engine. The player class is built on these settings; they live here, beside the
// code that reads them.

#include "platform/config/ConfigIntValue.h"
#include "platform/config/ConfigRealValue.h"
#include "platform/config/ConfigStringValue.h"

namespace {

// Bus messages are polled, not watched: a quarter second keeps state changes prompt without
// waking the CPU more than needed.
ConfigIntValue sBusPollInterval("gstreamer/bus_poll_interval", 250);
// Position reports while playing, in ms: twice a second is smooth enough for a progress bar.
ConfigIntValue sProgressPollInterval("gstreamer/progress_poll_interval", 500);
// Verbosity of the engine's own log lines: 1 logs tags and end of stream, 2 adds buffering.
ConfigIntValue sLogLevel("gstreamer/log_level", 1);
// GStreamer's own debug log routed into ours when above 0 (1 errors ... 4 and up info).
ConfigIntValue sExtendedLogLevel("gstreamer/extended_log_level", 0);
ConfigRealValue sVolume("gstreamer/volume", 1.0);
// Plays this URL instead of every item's, to test a stream without a client.
ConfigStringValue sOverrideUrl("gstreamer/override_url", QString());
// A bin description for playbin3's audio sink; empty keeps playbin3's own choice. Tests and
// the demo record to a file with it.
ConfigStringValue sAudioSink("gstreamer/audio_sink", QString());

} // namespace
