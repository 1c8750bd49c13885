#include "platform/log/LogRecord.h"

const char* LogRecord::levelName(Level level)
{
    switch (level) {
    case Info: return "INFO";
    case Warn: return "WARN";
    case Error: return "ERROR";
    }
    return "ERROR";
}

QString LogRecord::text() const
{
    if (isAssert)
        return QStringLiteral("ASSERT failed: (%1) %2 [%3:%4]").arg(condition, message, file).arg(line);
    if (function.isEmpty())
        return message;
    return function + QStringLiteral("(): ") + message;
}
