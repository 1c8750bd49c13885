#pragma once

#include "platform/log/LogRecord.h"

// Receives every record the Logger writes, synchronously, on the thread that logged it.
// Implementations must be thread-safe and quick; they must not log themselves.
class LogObserver
{
public:
    virtual ~LogObserver() = default;
    virtual void logged(const LogRecord& record) = 0;
};
