#include "platform/core/HeapTrimmer.h"

#include <malloc.h>

namespace {

// Soon enough after a burst that the footprint is back within seconds, rarely enough that the
// trims cost nothing measurable.
constexpr int kIntervalMs = 2000;

} // namespace

HeapTrimmer::HeapTrimmer(QObject* parent)
    : QObject(parent)
{
    mTimer.setInterval(kIntervalMs);
    mTimer.setTimerType(Qt::CoarseTimer);
    connect(&mTimer, &QTimer::timeout, this, &HeapTrimmer::trim);
}

void HeapTrimmer::start()
{
    mTimer.start();
}

void HeapTrimmer::trim()
{
    malloc_trim(0);
}
