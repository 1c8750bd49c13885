#pragma once

#include <QString>

// One logged message as observers see it, before it is formatted into a line.
struct LogRecord
{
    enum Level { Info, Warn, Error };

    Level level = Info;
    QString function;     // the calling function's name; empty for assertions
    QString message;      // the message pieces, concatenated
    QString threadName;
    // Set for Logger::logAssert records only.
    bool isAssert = false;
    QString condition;
    QString file;
    int line = 0;

    static const char* levelName(Level level);
    // "function(): message", or for an assertion the text that follows the level.
    QString text() const;
};
