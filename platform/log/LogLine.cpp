#include "platform/log/LogLine.h"

LogLine::LogLine(Logger::Level level, const char* function)
    : mLevel(level)
    , mFunction(function)
{
}

LogLine::~LogLine()
{
    Logger::write(mLevel, mFunction, mMessage);
}

LogLine& LogLine::operator<<(const QString& text)
{
    mMessage += text;
    return *this;
}

LogLine& LogLine::operator<<(const char* text)
{
    mMessage += QString::fromUtf8(text ? text : "(null)");
    return *this;
}

LogLine& LogLine::operator<<(const QByteArray& text)
{
    mMessage += QString::fromUtf8(text);
    return *this;
}

LogLine& LogLine::operator<<(QChar c)
{
    mMessage += c;
    return *this;
}

LogLine& LogLine::operator<<(char c)
{
    mMessage += QLatin1Char(c);
    return *this;
}

LogLine& LogLine::operator<<(bool value)
{
    mMessage += value ? QStringLiteral("true") : QStringLiteral("false");
    return *this;
}

LogLine& LogLine::operator<<(double value)
{
    mMessage += QString::number(value);
    return *this;
}
