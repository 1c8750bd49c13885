#pragma once

#include "platform/log/LogRecord.h"

#include <QString>
#include <QtGlobal>

class LogObserver;

// The process log: one line per message on stderr, "<UTC time> <LEVEL> [<thread>] <text>".
// Started by systemd (JOURNAL_STREAM set), a line starts with the journald priority prefix
// (<6> INFO, <4> WARN, <3> ERROR) instead of the time, so that journalctl can filter by level.
// Control characters in the pieces are escaped, so a message is always one line (LogFormat).
//
// Thread: every function may be called from any thread. Lines are handed to a writer thread,
// so a caller never blocks on a stalled stderr reader. Observers (tests capturing texts) are
// called synchronously under an internal lock. Failure: never throws; a line that cannot be
// written is lost.
class Logger
{
public:
    using Level = LogRecord::Level;
    static constexpr Level Info = LogRecord::Info;
    static constexpr Level Warn = LogRecord::Warn;
    static constexpr Level Error = LogRecord::Error;

    static void write(Level level, const char* function, const QString& message);

    // Reports a broken consistency rule at ERROR and lets execution continue: the caller
    // carries on with its fallback, so one wrong assumption never takes playback down.
    static void logAssert(const char* condition, const QString& message, const char* file, int line);

    // Qt's message handler: every qDebug/qWarning of Qt and of GStreamer's Qt glue lands here.
    static void handleQtLogMessage(QtMsgType type, const QMessageLogContext& context, const QString& message);

    static void addObserver(LogObserver* observer);
    static void removeObserver(LogObserver* observer);

    // Blocks until every line logged before the call is on stderr, or for half a second at
    // most: a reader that stopped draining stderr must not keep the process from exiting
    // (used before exit and by tests that read the process's stderr).
    static void flush();

    // The name logging shows for the calling thread: the name given with
    // setCurrentThreadName(), else "main" for the process's first thread, else the OS thread
    // name (which the kernel cuts to 15 characters).
    static QString currentThreadName();
    static void setCurrentThreadName(const QString& name);

private:
    static void dispatch(const LogRecord& record);
};

// Logs a broken consistency rule with the condition's text; execution continues.
#define LOG_ASSERT(condition, message)                                        \
    do {                                                                      \
        if (!(condition))                                                     \
            Logger::logAssert(#condition, (message), __FILE__, __LINE__);     \
    } while (false)
