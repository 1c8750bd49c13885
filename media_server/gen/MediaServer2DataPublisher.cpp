// The publisher of the MediaServer2 status messages. The publisher is generated on these
// settings; they live here, beside the code that reads them. Periods are in milliseconds.

#include "platform/config/ConfigIntValue.h"

namespace {

ConfigIntValue sLowFrequency("data_pub/MediaServer2_low_frequency", 250);
// Minimum spacing of two messages caused by value changes.
ConfigIntValue sRateLimitTime("data_pub/MediaServer2_rate_limit_time", 10);
ConfigIntValue sBufferStatusFrequency("data_pub/MediaServer2BufferStatus_frequency", 500);
// 0: the position is sent on change only, never on a timer.
ConfigIntValue sPlaybackStatusFrequency("data_pub/MediaServer2PlaybackStatus_frequency", 0);
ConfigIntValue sInfoFrequency("data_pub/MediaServer2Info_frequency", 1000);

} // namespace
