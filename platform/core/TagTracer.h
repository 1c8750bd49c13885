#pragma once

#include <QString>

// Trace tags: named groups of extra diagnostic logging that are off unless asked for, so a
// field engineer can switch on, say, "streamcache" without rebuilding. tag_tracer_init() reads
// the comma-separated tags from the environment variable CABIN_TRACE ("all" enables every tag)
// and logs the enabled set once.
//
// Thread: tag_tracer_init() once at start-up on the main thread; tag_tracer_enabled() from any
// thread afterwards (the set is not changed again).
void tag_tracer_init();
bool tag_tracer_enabled(const QString& tag);
