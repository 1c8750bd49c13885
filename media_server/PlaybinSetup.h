#pragma once

#include <gst/gst.h>

namespace MediaV2 {

// How the player's playbin3 is set up before its first item: audio output on, the workaround
// that keeps this GStreamer release's item loading reliable, and the audio sink named by
// "gstreamer/audio_sink" (tests and the demo record to a file through it).
//
// Thread: the player's (main) thread; the element-setup callback it installs runs on whichever
// GStreamer thread creates the element and touches only that element. Failure: an invalid sink
// description is logged once and playbin3 keeps its own sink.
namespace PlaybinSetup {

void configure(GstElement* playbin);

} // namespace PlaybinSetup

} // namespace MediaV2
