#include "tests/support/LogCapture.h"

#include "platform/log/Logger.h"

LogCapture::LogCapture()
{
    Logger::addObserver(this);
}

LogCapture::~LogCapture()
{
    Logger::removeObserver(this);
}

void LogCapture::logged(const LogRecord& record)
{
    QMutexLocker guard(&mLock);
    mRecords.append(record);
}

QList<LogRecord> LogCapture::records() const
{
    QMutexLocker guard(&mLock);
    return mRecords;
}

QList<LogRecord> LogCapture::asserts() const
{
    QList<LogRecord> result;
    for (const LogRecord& record : records())
        if (record.isAssert)
            result.append(record);
    return result;
}

QStringList LogCapture::lines() const
{
    QStringList result;
    for (const LogRecord& record : records())
        if (!record.isAssert)
            result.append(record.text());
    return result;
}

bool LogCapture::hasLine(const QString& text) const
{
    return lines().contains(text);
}

bool LogCapture::hasLineContaining(const QString& fragment) const
{
    for (const QString& line : lines())
        if (line.contains(fragment))
            return true;
    return false;
}

QStringList LogCapture::assertMessages() const
{
    QStringList result;
    for (const LogRecord& record : asserts())
        result.append(record.message);
    return result;
}

void LogCapture::clear()
{
    QMutexLocker guard(&mLock);
    mRecords.clear();
}
