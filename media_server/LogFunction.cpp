#include "media_server/LogFunction.h"

#include "platform/config/ConfigIntValue.h"
#include "platform/log/Logger.h"

namespace {

// GStreamer's own debug log routed into ours when above 0: 1 errors, 2 warnings, 3 fix-me,
// 4 and up info and finer. Off by default: it is verbose and costs CPU on the audio path.
ConfigIntValue sExtendedLogLevel("gstreamer/extended_log_level", 0,
    "GStreamer's own debug log in ours: 0 off, 1 errors, 2 warnings, 3 fix-me, 4 and up info and finer", ConfigRange<int>{0, 9});

} // namespace

namespace MediaV2 {

int extendedLogLevel()
{
    return sExtendedLogLevel.value();
}

void LogFunction(GstDebugCategory* category, GstDebugLevel level, const gchar* file, const gchar* function, gint line,
                 GObject*, GstDebugMessage* message, gpointer)
{
    if (level == GST_LEVEL_NONE || int(level) > extendedLogLevel())
        return;
    const QString text = QStringLiteral("[gst-log] %1 %2:%3:%4(): %5")
                             .arg(QString::fromUtf8(gst_debug_category_get_name(category)), QString::fromUtf8(file))
                             .arg(line)
                             .arg(QString::fromUtf8(function), QString::fromUtf8(gst_debug_message_get(message)));
    const Logger::Level ours = level == GST_LEVEL_ERROR ? Logger::Error
        : (level == GST_LEVEL_WARNING || level == GST_LEVEL_FIXME) ? Logger::Warn
                                                                   : Logger::Info;
    Logger::write(ours, nullptr, text);
}

} // namespace MediaV2
