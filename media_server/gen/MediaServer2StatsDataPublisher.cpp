// The publisher of the network statistics message. The publisher is generated on these
// settings; they live here, beside the code that reads them. Periods are in milliseconds.

#include "platform/config/ConfigIntValue.h"

namespace {

ConfigIntValue sLowFrequency("data_pub/MediaServer2Stats_low_frequency", 1000);
ConfigIntValue sRateLimitTime("data_pub/MediaServer2Stats_rate_limit_time", 10);
// Traffic totals change constantly while downloading; every 10 s is enough for statistics.
ConfigIntValue sNetStatsFrequency("data_pub/MediaServer2NetStats_frequency", 10000);

} // namespace
