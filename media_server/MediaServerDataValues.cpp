#include "media_server/MediaServerDataValues.h"

MediaV2::MediaServerStateDataValue MEDIA2_serverState(QStringLiteral("MEDIA2_serverState"), false, 1);
StringDataValue MEDIA2_nowPlayingTitle(QStringLiteral("MEDIA2_nowPlayingTitle"), false, 1);
IntDataValue MEDIA2_streamBitRate(QStringLiteral("MEDIA2_streamBitRate"), false, 1, 0);
Uint64DataValue MEDIA2_totalBytes(QStringLiteral("MEDIA2_totalBytes"), false, 1, 0);
BoolDataValue MEDIA2_streamCached(QStringLiteral("MEDIA2_streamCached"), false, 1, false);
BoolDataValue MEDIA2_playingCustomMedia(QStringLiteral("MEDIA2_playingCustomMedia"), false, 1, false);
RealDataValue MEDIA2_bufferProgress(QStringLiteral("MEDIA2_bufferProgress"), false, 1, 0.0, true);
Uint64DataValue MEDIA2_downloadedBytes(QStringLiteral("MEDIA2_downloadedBytes"), false, 1, 0);
IntDataValue MEDIA2_elapsedTime(QStringLiteral("MEDIA2_elapsedTime"), false, 1, 0);
NetStats::ConnectionUsageDataValue MEDIA2_connNetStats(QStringLiteral("MEDIA2_connNetStats"));
