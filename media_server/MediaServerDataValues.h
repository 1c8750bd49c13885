#pragma once

#include "UI/media_server/MediaServerStateDataValue.h"
#include "platform/datavalue/BoolDataValue.h"
#include "platform/datavalue/ConnectionUsageDataValue.h"
#include "platform/datavalue/IntDataValue.h"
#include "platform/datavalue/RealDataValue.h"
#include "platform/datavalue/StringDataValue.h"
#include "platform/datavalue/Uint64DataValue.h"

// The media server's status as other processes read it, by these names. Only the buffer
// progress is valid from the start (a reader sees 0 % before anything loads) and the two
// booleans read false; everything else is "no value" until the player first sets it, so a
// client never mistakes "nothing known yet" for a title, a position or a state.
//
// Thread: constructed at static initialisation on the main thread; written by the playback
// components on the main thread, read from any thread (see DataValue).
extern MediaV2::MediaServerStateDataValue MEDIA2_serverState;
extern StringDataValue MEDIA2_nowPlayingTitle;
extern IntDataValue MEDIA2_streamBitRate;
extern Uint64DataValue MEDIA2_totalBytes;
extern BoolDataValue MEDIA2_streamCached;
extern BoolDataValue MEDIA2_playingCustomMedia;
extern RealDataValue MEDIA2_bufferProgress;
extern Uint64DataValue MEDIA2_downloadedBytes;
extern IntDataValue MEDIA2_elapsedTime;
extern NetStats::ConnectionUsageDataValue MEDIA2_connNetStats;
