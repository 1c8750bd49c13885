#pragma once

#include <gst/gst.h>

namespace MediaV2 {

// Routes GStreamer's own debug messages into the process log: "[gst-log] category
// file:line:function(): message", ERROR for GStreamer errors, WARN for warnings and fix-me
// messages, INFO for everything finer. Messages above "gstreamer/extended_log_level" (read
// on every call) are dropped; GStreamer's own per-category thresholds stay as they are.
//
// Thread: called by GStreamer on any of its threads; only reads a setting and logs.
void LogFunction(GstDebugCategory* category, GstDebugLevel level, const gchar* file, const gchar* function, gint line,
                 GObject* object, GstDebugMessage* message, gpointer userData);

// The level the bridge passes messages up to.
int extendedLogLevel();

} // namespace MediaV2
