#pragma once

#include "platform/log/LogObserver.h"

#include <QList>
#include <QMutex>
#include <QStringList>

// Collects every log record written while it exists, so a test can assert on the system's own
// log and assertion texts.
//
// Thread: records arrive on whichever thread logs; every accessor takes mLock.
class LogCapture : public LogObserver
{
public:
    LogCapture();
    ~LogCapture() override;

    void logged(const LogRecord& record) override;

    QList<LogRecord> records() const;
    QList<LogRecord> asserts() const;
    // "function(): message" of every non-assertion record, in order.
    QStringList lines() const;
    bool hasLine(const QString& text) const;
    bool hasLineContaining(const QString& fragment) const;
    // Message texts of the assertions, in order.
    QStringList assertMessages() const;
    void clear();

private:
    mutable QMutex mLock;
    QList<LogRecord> mRecords;   // guarded by mLock
};
