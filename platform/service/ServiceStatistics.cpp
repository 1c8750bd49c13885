#include "platform/service/ServiceStatistics.h"

#include <algorithm>

ServiceStatistics::ServiceStatistics()
{
    mUptime.start();
}

void ServiceStatistics::recordRequest(qint64 elapsedMs)
{
    ++mRequests;
    mTotalMs += elapsedMs;
    mMaximumMs = std::max(mMaximumMs, elapsedMs);
}

qint64 ServiceStatistics::uptimeSeconds() const
{
    return mUptime.elapsed() / 1000;
}

double ServiceStatistics::averageMs() const
{
    return mRequests == 0 ? 0.0 : double(mTotalMs) / double(mRequests);
}
