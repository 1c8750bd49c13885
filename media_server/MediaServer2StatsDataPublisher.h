#pragma once

#include "platform/service/ServiceDataPublisher.h"

class QDataStream;

// Publishes the process's network statistics (MEDIA2_connNetStats, in its variant form) under
// the service name "MediaServer2Stats" as the message "MediaServer2NetStats": on change (the
// value itself broadcasts at most once a second) and on its own period. The service of the
// same name (the generated MediaServer2Stats interface, registered here too) gives it its bus
// name and path.
//
// Thread: main thread; created by the service framework when it starts. Owns nothing but its
// timers (in the base).
class MediaServer2StatsDataPublisher : public ServiceDataPublisher
{
    Q_OBJECT
public:
    static constexpr quint32 kPublisherId = 0x1E53FEC3;
    static constexpr quint32 kNetStatsId = 0x491CD919;

    Q_INVOKABLE explicit MediaServer2StatsDataPublisher(QObject* parent = nullptr);

    static void assembleMediaServer2NetStatsMessage(QDataStream& stream);

public slots:
    void publishMediaServer2NetStatsMessage();
    void MediaServer2NetStatsMessageChanged();
};
