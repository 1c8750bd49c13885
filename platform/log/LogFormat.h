#pragma once

#include "platform/log/LogRecord.h"

#include <QString>

#include <string>

// Turns a record into the one line that reaches stderr: "<UTC time> <LEVEL> [<thread>] <text>",
// or under journald (JOURNAL_STREAM set) "<priority><LEVEL> [<thread>] <text>".
//
// Every piece that comes from outside the logging code (message, function, thread name, the
// texts of an assertion) may carry control characters: a stream title or a D-Bus argument with
// a newline would otherwise forge a whole line of its own, with any journald priority. They are
// escaped ("\n", "\r", "\t", else "\xNN"), so one message is always exactly one line.
//
// Thread: any; no state but the journald choice, fixed at first use.
class LogFormat
{
public:
    static std::string line(const LogRecord& record);
    static QString escapeControls(const QString& text);
};
