// Download buffering of one item into its cache file. The buffer class itself is built on
// these settings; they live here, beside the code that reads them.

#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigIntValue.h"

namespace {

// Bytes on disk before playback may start: the decoder's first reads plus a few seconds of
// headroom at common bit rates (10 s of 128 kbit/s audio).
ConfigIntValue sInitialThreshold("media_buffer/initial_threshold_bytes", 160000);
// Resumptions of a broken download before the item fails: enough for a tunnel, not so many
// that a dead server keeps the driver waiting.
ConfigIntValue sDownloadRetries("media_buffer/download_retries", 3);
// Response headers in the log, for diagnosing servers; off because they are long.
ConfigBoolValue sHeaderDebug("media_buffer/header_debug", false);
// Milliseconds without data before a download is abandoned and retried.
ConfigIntValue sDownloadTimeout("media_buffer/download_timeout", 10000);

} // namespace
