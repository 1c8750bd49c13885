#pragma once

#include <QtGlobal>

namespace MediaV2 {

// Whether the start position an item was played from may be sought once the pipeline plays:
// the stream must say it can seek and the position must lie inside its seeking range. When the
// pipeline cannot say, only a wildly large position is refused (the pending position in ms is
// compared with the duration in ns, as the player always has).
//
// Thread: any (a pure rule that logs its refusals at ERROR).
namespace StartSeekRule {

struct SeekRange
{
    bool answered = false;   // the pipeline answered the seeking query
    bool seekable = false;
    qint64 start = 0;        // ns
    qint64 end = 0;          // ns
};

bool pendingSeekIsReachable(qint64 pendingMs, qint64 durationNs, const SeekRange& range);

} // namespace StartSeekRule

} // namespace MediaV2
