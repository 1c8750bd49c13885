// The in-memory FIFO that feeds live streams to GStreamer. The FIFO class is built on these
// settings; they live here, beside the code that reads them.

#include "platform/config/ConfigIntValue.h"

namespace {

// Ring capacity in bytes: about a minute of 128 kbit/s audio, so a slow pipeline start never
// makes the network side drop data.
ConfigIntValue sRingBufferSize("media_fifo/ring_buffer_size", 1048576);
// Bytes queued before pushing starts or resumes: a few seconds at common live bit rates.
ConfigIntValue sBufferSize("media_fifo/buffer_size", 51200);

} // namespace
