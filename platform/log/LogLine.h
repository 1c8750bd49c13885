#pragma once

#include "platform/log/Logger.h"

#include <QByteArray>
#include <QString>

#include <type_traits>

// Builds one log line from pieces and writes it when the statement ends:
//     LOG_INFO << "position " << ms;   // inside seek(): "seek(): position 1500"
// The calling function's name comes first by itself; pieces are concatenated as given, so the
// spaces belong in the texts.
//
// Thread: a temporary on the caller's stack; safe from any thread.
class LogLine
{
public:
    LogLine(Logger::Level level, const char* function);
    ~LogLine();
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;

    LogLine& operator<<(const QString& text);
    LogLine& operator<<(const char* text);
    LogLine& operator<<(const QByteArray& text);
    LogLine& operator<<(QChar c);
    LogLine& operator<<(char c);
    LogLine& operator<<(bool value);
    LogLine& operator<<(double value);

    template <class T, std::enable_if_t<std::is_integral_v<T> && !std::is_same_v<T, bool> && !std::is_same_v<T, char>, int> = 0>
    LogLine& operator<<(T value)
    {
        mMessage += QString::number(value);
        return *this;
    }

private:
    Logger::Level mLevel;
    const char* mFunction;
    QString mMessage;
};

#define LOG_INFO LogLine(Logger::Info, __func__)
#define LOG_WARN LogLine(Logger::Warn, __func__)
#define LOG_ERROR LogLine(Logger::Error, __func__)
