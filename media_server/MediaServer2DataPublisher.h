#pragma once

#include "platform/service/ServiceDataPublisher.h"

class QDataStream;

// Publishes the media server's status under the service name "MediaServer2": the buffer
// status (progress, downloaded bytes), the playback status (elapsed time) and the info
// message (title, server state, bit rate, total bytes, cached, custom media), each from the
// MEDIA2_* data values and sent when one of its values changes and on its own period (see
// ServiceDataPublisher for the timing rules; the periods are configuration).
//
// Thread: main thread; created by the service framework when it starts. Owns nothing but its
// timers (in the base).
class MediaServer2DataPublisher : public ServiceDataPublisher
{
    Q_OBJECT
public:
    static constexpr quint32 kPublisherId = 0xD4C26BE5;
    static constexpr quint32 kBufferStatusId = 0x36E916EF;
    static constexpr quint32 kPlaybackStatusId = 0x2A083BB3;
    static constexpr quint32 kInfoId = 0x2F5834B5;

    Q_INVOKABLE explicit MediaServer2DataPublisher(QObject* parent = nullptr);

    static void assembleMediaServer2BufferStatusMessage(QDataStream& stream);
    static void assembleMediaServer2PlaybackStatusMessage(QDataStream& stream);
    static void assembleMediaServer2InfoMessage(QDataStream& stream);

public slots:
    void publishMediaServer2BufferStatusMessage();
    void publishMediaServer2PlaybackStatusMessage();
    void publishMediaServer2InfoMessage();
    void MediaServer2BufferStatusMessageChanged();
    void MediaServer2PlaybackStatusMessageChanged();
    void MediaServer2InfoMessageChanged();
};
