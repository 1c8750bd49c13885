#pragma once

#include <QtGlobal>

namespace MediaV2 {

// What the stream cache may hold: a count, a total size, and the free space it must leave on
// the disk for the rest of the vehicle. A plain value, read anew from the settings for every
// pruning pass so a changed setting takes effect at the next pass.
//
// Thread: any (a value).
struct StreamCacheLimits
{
    struct Usage
    {
        qint64 count = 0;
        qint64 bytes = 0;
        qint64 freeBytes = -1;   // -1: unknown, so free space does not limit
    };

    qint64 maxCount = 0;
    qint64 maxBytes = 0;
    qint64 requiredFreeBytes = 0;

    bool exceededBy(const Usage& usage) const
    {
        return usage.count > maxCount || usage.bytes > maxBytes
            || (usage.freeBytes >= 0 && usage.freeBytes < requiredFreeBytes);
    }
    // The usage once an entry of `bytes` is gone; its bytes count as freed on the disk.
    static Usage without(Usage usage, qint64 bytes)
    {
        --usage.count;
        usage.bytes -= bytes;
        if (usage.freeBytes >= 0)
            usage.freeBytes += bytes;
        return usage;
    }
};

} // namespace MediaV2
