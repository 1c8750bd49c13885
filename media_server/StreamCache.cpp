// The persistent cache of finished downloads. The cache class is built on these settings; they
// live here, beside the code that reads them.

#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/config/ConfigStringValue.h"
#include "platform/config/ConfigUnsignedIntValue.h"
#include "platform/io/StorageUtils.h"

namespace {

// Disk space the cache may use, in MB: a few hundred items of typical length.
ConfigIntValue sMaxDiskCacheSize("mediaserver/maxDiskCacheSize", 2000);
// Number of items the cache may hold, whatever their size.
ConfigUnsignedIntValue sMaxDiskCacheCount("mediaserver/maxDiskCacheCount", 1000);
// Lookups the cache thread serves at once; more would only queue on the disk.
ConfigIntValue sMaxAsyncLoad("mediaserver/stream_cache_max_async_load", 3);
ConfigBoolValue sDebugLog("mediaserver/stream_cache_debug_log", false);
// The database and the folder of stream files deliberately share one key: pointing the key at
// another place moves both together, and with the key unset each has its own default. The
// defaults are spelled from the cache root: asking StorageUtils for the folder would create it
// while merely listing the settings.
ConfigStringValue sDbFile("mediaserver/stream_cache_db_file", StorageUtils::cacheRoot() + QStringLiteral("/stream_cache/stream_cache.db"));
ConfigStringValue sStreamFolder("mediaserver/stream_cache_db_file", StorageUtils::cacheRoot() + QStringLiteral("/stream_cache/streams/"));
// Seconds after which an entry expires: 30 days.
ConfigUnsignedIntValue sItemExpiration("mediaserver/stream_cache_item_expiration", 2592000);
// Free disk space (MB) the cache always leaves for the rest of the system.
ConfigIntValue sRequiredFreeDiskSpace("mediaserver/stream_cache_required_free_disk_space_mb", 300);
// Pretends the disk has this much free space (MB) to test pruning; -1 reads the real figure.
ConfigIntValue sDebugFreeDiskSpace("mediaserver/stream_cache_debug_free_disk_space_mb", -1);
// How often the cache prunes itself (ms).
ConfigIntValue sPruneTimerMs("mediaserver/stream_cache_prune_timer_ms", 60000);

} // namespace
