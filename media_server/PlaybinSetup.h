#pragma once

#include <gst/gst.h>

namespace MediaV2 {

// How the player's playbin3 is set up before its first item: audio output on, the workaround
// that keeps this GStreamer release's item loading reliable, the audio sink named by
// "gstreamer/audio_sink" (tests and the demo record to a file through it) behind a "volume"
// element, which carries the player's volume and mute instead of playbin3's own "volume"
// property.
//
// Thread: the player's (main) thread; the element-setup callback it installs runs on whichever
// GStreamer thread creates the element and touches only that element. Failure: an invalid sink
// description is logged once and the default sink is used. Returns the volume element, owned
// by the playbin and valid while it lives; null (logged) when GStreamer has none.
namespace PlaybinSetup {

GstElement* configure(GstElement* playbin);

} // namespace PlaybinSetup

} // namespace MediaV2
