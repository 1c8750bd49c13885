#include "media_server/MediaServer2StatsDataPublisher.h"

#include "media_server/gen/MediaServer2Stats.h"
#include "media_server/MediaServerDataValues.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/service/ServiceManagerRegistrar.h"

#include <QDataStream>

namespace {

// Periods in milliseconds.
ConfigIntValue sLowFrequency("data_pub/MediaServer2Stats_low_frequency", 1000,
    "how often changed MediaServer2Stats messages are sent at the latest (ms)", ConfigRange<int>{1});
ConfigIntValue sRateLimitTime("data_pub/MediaServer2Stats_rate_limit_time", 10,
    "least spacing of two sends of one MediaServer2Stats message (ms)", ConfigRange<int>{0});
// Traffic totals change constantly while downloading; every 10 s is enough for statistics.
ConfigIntValue sNetStatsFrequency("data_pub/MediaServer2NetStats_frequency", 10000,
    "MediaServer2NetStats also sent this often; 0: on change only (ms)", ConfigRange<int>{0});

const QString kNetStats = QStringLiteral("MediaServer2NetStats");

ServiceManagerRegistrar sService(QStringLiteral("MediaServer2Stats"), QStringLiteral("MediaServer2Stats"),
                                 &MediaServer2StatsImplBase::staticMetaObject, ServerInstance, QStringList());
ServiceManagerRegistrar sPublisher(QStringLiteral("MediaServer2Stats"), QStringLiteral("MediaServer2StatsDataPublisher"),
                                   &MediaServer2StatsDataPublisher::staticMetaObject, ServerInstance, QStringList());

} // namespace

MediaServer2StatsDataPublisher::MediaServer2StatsDataPublisher(QObject* parent)
    : ServiceDataPublisher(QStringLiteral("MediaServer2Stats"), sLowFrequency.value(), sRateLimitTime.value(), parent)
{
    addMessage(kNetStats, sNetStatsFrequency.value(), &assembleMediaServer2NetStatsMessage);
    connect(&MEDIA2_connNetStats, &DataValue::valueChanged, this,
            &MediaServer2StatsDataPublisher::MediaServer2NetStatsMessageChanged);
    startTimers();
}

void MediaServer2StatsDataPublisher::assembleMediaServer2NetStatsMessage(QDataStream& stream)
{
    writeHeader(stream, kNetStatsId, kPublisherId, 1);
    writeValue(stream, MEDIA2_connNetStats);
}

void MediaServer2StatsDataPublisher::publishMediaServer2NetStatsMessage()
{
    publish(kNetStats);
}

void MediaServer2StatsDataPublisher::MediaServer2NetStatsMessageChanged()
{
    messageChanged(kNetStats);
}
