#include "media_server/MediaServer2DataPublisher.h"

#include "media_server/MediaServerDataValues.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/service/ServiceManagerRegistrar.h"

#include <QDataStream>

namespace {

// Periods in milliseconds. A message also goes out whenever one of its values changes.
ConfigIntValue sLowFrequency("data_pub/MediaServer2_low_frequency", 250,
    "how often changed MediaServer2 messages are sent at the latest (ms)", ConfigRange<int>{1});
// The least spacing of two sends of the same message: a burst of changes is one message.
ConfigIntValue sRateLimitTime("data_pub/MediaServer2_rate_limit_time", 10,
    "least spacing of two sends of one MediaServer2 message (ms)", ConfigRange<int>{0});
// Twice a second keeps a progress bar moving while the download is quiet.
ConfigIntValue sBufferStatusFrequency("data_pub/MediaServer2BufferStatus_frequency", 500,
    "MediaServer2BufferStatus also sent this often; 0: on change only (ms)", ConfigRange<int>{0});
// 0: the position is sent on change only (it changes twice a second while playing).
ConfigIntValue sPlaybackStatusFrequency("data_pub/MediaServer2PlaybackStatus_frequency", 0,
    "MediaServer2PlaybackStatus also sent this often; 0: on change only (ms)", ConfigRange<int>{0});
ConfigIntValue sInfoFrequency("data_pub/MediaServer2Info_frequency", 1000,
    "MediaServer2Info also sent this often; 0: on change only (ms)", ConfigRange<int>{0});

const QString kBufferStatus = QStringLiteral("MediaServer2BufferStatus");
const QString kPlaybackStatus = QStringLiteral("MediaServer2PlaybackStatus");
const QString kInfo = QStringLiteral("MediaServer2Info");

ServiceManagerRegistrar sRegistration(QStringLiteral("MediaServer2"), QStringLiteral("MediaServer2DataPublisher"),
                                      &MediaServer2DataPublisher::staticMetaObject, ServerInstance, QStringList());

} // namespace

MediaServer2DataPublisher::MediaServer2DataPublisher(QObject* parent)
    : ServiceDataPublisher(QStringLiteral("MediaServer2"), sLowFrequency.value(), sRateLimitTime.value(), parent)
{
    addMessage(kBufferStatus, sBufferStatusFrequency.value(), &assembleMediaServer2BufferStatusMessage);
    addMessage(kPlaybackStatus, sPlaybackStatusFrequency.value(), &assembleMediaServer2PlaybackStatusMessage);
    addMessage(kInfo, sInfoFrequency.value(), &assembleMediaServer2InfoMessage);
    for (DataValue* value : std::initializer_list<DataValue*>{&MEDIA2_bufferProgress, &MEDIA2_downloadedBytes})
        connect(value, &DataValue::valueChanged, this, &MediaServer2DataPublisher::MediaServer2BufferStatusMessageChanged);
    connect(&MEDIA2_elapsedTime, &DataValue::valueChanged, this,
            &MediaServer2DataPublisher::MediaServer2PlaybackStatusMessageChanged);
    for (DataValue* value : std::initializer_list<DataValue*>{&MEDIA2_nowPlayingTitle, &MEDIA2_serverState,
                                                              &MEDIA2_streamBitRate, &MEDIA2_totalBytes,
                                                              &MEDIA2_streamCached, &MEDIA2_playingCustomMedia})
        connect(value, &DataValue::valueChanged, this, &MediaServer2DataPublisher::MediaServer2InfoMessageChanged);
    startTimers();
}

void MediaServer2DataPublisher::assembleMediaServer2BufferStatusMessage(QDataStream& stream)
{
    writeHeader(stream, kBufferStatusId, kPublisherId, 2);
    writeValue(stream, MEDIA2_bufferProgress);
    writeValue(stream, MEDIA2_downloadedBytes);
}

void MediaServer2DataPublisher::assembleMediaServer2PlaybackStatusMessage(QDataStream& stream)
{
    writeHeader(stream, kPlaybackStatusId, kPublisherId, 1);
    writeValue(stream, MEDIA2_elapsedTime);
}

void MediaServer2DataPublisher::assembleMediaServer2InfoMessage(QDataStream& stream)
{
    writeHeader(stream, kInfoId, kPublisherId, 6);
    writeValue(stream, MEDIA2_nowPlayingTitle);
    writeValue(stream, MEDIA2_serverState);
    writeValue(stream, MEDIA2_streamBitRate);
    writeValue(stream, MEDIA2_totalBytes);
    writeValue(stream, MEDIA2_streamCached);
    writeValue(stream, MEDIA2_playingCustomMedia);
}

void MediaServer2DataPublisher::publishMediaServer2BufferStatusMessage()
{
    publish(kBufferStatus);
}

void MediaServer2DataPublisher::publishMediaServer2PlaybackStatusMessage()
{
    publish(kPlaybackStatus);
}

void MediaServer2DataPublisher::publishMediaServer2InfoMessage()
{
    publish(kInfo);
}

void MediaServer2DataPublisher::MediaServer2BufferStatusMessageChanged()
{
    messageChanged(kBufferStatus);
}

void MediaServer2DataPublisher::MediaServer2PlaybackStatusMessageChanged()
{
    messageChanged(kPlaybackStatus);
}

void MediaServer2DataPublisher::MediaServer2InfoMessageChanged()
{
    messageChanged(kInfo);
}
