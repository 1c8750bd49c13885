// Source selection and underrun control. The wrapper class is built on these settings; they
// live here, beside the code that reads them.

#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/config/ConfigStringValue.h"

namespace {

// Pause when less than this much audio is downloaded ahead of the play position: enough to
// ride out a short radio shadow without an audible gap.
ConfigIntValue sUnderrunThresholdMs("media_buffer/underrun_threshold_ms", 5000);
// Resume after an underrun only with this much ahead, twice the pause threshold, so playback
// does not stutter between pause and play on a marginal link.
ConfigIntValue sResumePlayThresholdMs("media_buffer/resume_play_threshold_ms", 10000);
// Live streams through the in-memory FIFO; off until a deployment has verified its stations.
ConfigBoolValue sAllowFifo("media_buffer/allow_fifo", false);
// A cache hit counts as a hit for statistics only when the entry was idle this long (seconds),
// so replaying the same item at once is not reported as the cache saving a download.
ConfigIntValue sCacheHitAccessTimeThreshold("mediaserver/cache_hit_access_time_threshold_seconds", 600);
// Test overrides of the items' cache keys; empty means use the client's keys.
ConfigStringValue sCacheKeyOverride("mediaserver/cache_key", QString());
ConfigStringValue sPreloadCacheKeyOverride("mediaserver/preload_cache_key", QString());

} // namespace
