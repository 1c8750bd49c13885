#pragma once

#include <QElapsedTimer>

// What a service reports about itself in "ServiceStatus": how long it has run and how many
// requests it answered how fast (time from arrival to answer, in milliseconds).
//
// Thread: main thread only.
class ServiceStatistics
{
public:
    ServiceStatistics();

    void recordRequest(qint64 elapsedMs);
    qint64 uptimeSeconds() const;
    qint64 requests() const { return mRequests; }
    double averageMs() const;
    qint64 maximumMs() const { return mMaximumMs; }

private:
    QElapsedTimer mUptime;
    qint64 mRequests = 0;
    qint64 mTotalMs = 0;
    qint64 mMaximumMs = 0;
};
