#include "media_server/StartSeekRule.h"

#include "platform/log/LogLine.h"

namespace MediaV2::StartSeekRule {

bool pendingSeekIsReachable(qint64 pendingMs, qint64 durationNs, const SeekRange& range)
{
    if (!range.answered) {
        LOG_ERROR << "Failed to retrieve seek info for stream, calling seek directly";
        if (pendingMs < durationNs)
            return true;
        LOG_ERROR << "Seeking position is out of range, not seeking.";
        return false;
    }
    if (!range.seekable) {
        LOG_ERROR << "Cannot seek, seek not enabled in this stream.";
        return false;
    }
    const qint64 target = pendingMs * 1000000;
    if ((target < range.start || target >= range.end) && durationNs > 0) {
        LOG_ERROR << "Seek position outside of seeking range. " << target << " " << range.start << " " << range.end;
        return false;
    }
    return true;
}

} // namespace MediaV2::StartSeekRule
