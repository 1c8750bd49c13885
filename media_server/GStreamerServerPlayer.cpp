#include "media_server/GStreamerServerPlayer.h"

#include "platform/config/ConfigBoolValue.h"

namespace {

// Every transition of the playback state machine in the log: on by default, because the state
// history is the first thing needed when a field report says playback stopped.
ConfigBoolValue sTracePlayerSm("media_server/trace_player_sm", true);

} // namespace

namespace MediaV2 {

GStreamerServerPlayer* GStreamerServerPlayer::instance()
{
    return nullptr;
}

} // namespace MediaV2
