#pragma once

#include <QObject>

namespace MediaV2 {

// The single object that turns client requests into playback. Requests reach it by queued
// invocation by method name (see MediaServerImpl2).
//
// This build has no playback engine yet: instance() answers null, and every request that needs
// the player answers false with "Built without gstreamer!".
//
// Thread: main thread.
class GStreamerServerPlayer : public QObject
{
    Q_OBJECT
public:
    static GStreamerServerPlayer* instance();
};

} // namespace MediaV2
