#include "platform/log/Logger.h"

#include "platform/log/LogObserver.h"
#include "platform/log/LogWriter.h"

#include <QDateTime>
#include <QMutex>
#include <QVector>

#include <atomic>
#include <cstdlib>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// Trivially destructible, so it can be read safely during static destruction, after the writer
// is gone: late lines are then written directly.
std::atomic<bool> sWriterGone{false};

struct WriterHolder
{
    LogWriter writer{STDERR_FILENO};
    ~WriterHolder() { sWriterGone = true; }
};

LogWriter* writer()
{
    static WriterHolder holder;
    return sWriterGone ? nullptr : &holder.writer;
}

QMutex& observerLock()
{
    static QMutex lock;
    return lock;
}

QVector<LogObserver*>& observers()   // guarded by observerLock()
{
    static QVector<LogObserver*> list;
    return list;
}

const char* journalPrefix(LogRecord::Level level)
{
    switch (level) {
    case LogRecord::Info: return "<6>";
    case LogRecord::Warn: return "<4>";
    case LogRecord::Error: return "<3>";
    }
    return "<3>";
}

bool underJournal()
{
    static const bool journal = qEnvironmentVariableIsSet("JOURNAL_STREAM");
    return journal;
}

LogRecord::Level levelForQtType(QtMsgType type)
{
    switch (type) {
    case QtDebugMsg:
    case QtInfoMsg: return LogRecord::Info;
    case QtWarningMsg: return LogRecord::Warn;
    case QtCriticalMsg:
    case QtFatalMsg: return LogRecord::Error;
    }
    return LogRecord::Warn;
}

// "void MediaV2::Foo::bar(int) const" -> "MediaV2::Foo::bar".
QString plainFunctionName(const char* signature)
{
    if (!signature)
        return QStringLiteral("Qt");
    QString name = QString::fromUtf8(signature);
    int paren = name.indexOf(QLatin1Char('('));
    if (paren >= 0)
        name.truncate(paren);
    int space = name.lastIndexOf(QLatin1Char(' '));
    return space >= 0 ? name.mid(space + 1) : name;
}

} // namespace

void Logger::write(Level level, const char* function, const QString& message)
{
    LogRecord record;
    record.level = level;
    record.function = QString::fromUtf8(function ? function : "");
    record.message = message;
    record.threadName = currentThreadName();
    dispatch(record);
}

void Logger::logAssert(const char* condition, const QString& message, const char* file, int line)
{
    LogRecord record;
    record.level = LogRecord::Error;
    record.message = message;
    record.threadName = currentThreadName();
    record.isAssert = true;
    record.condition = QString::fromUtf8(condition ? condition : "");
    record.file = QString::fromUtf8(file ? file : "");
    record.line = line;
    dispatch(record);
}

void Logger::handleQtLogMessage(QtMsgType type, const QMessageLogContext& context, const QString& message)
{
    LogRecord record;
    record.level = levelForQtType(type);
    record.function = plainFunctionName(context.function);
    record.message = message;
    record.threadName = currentThreadName();
    dispatch(record);
    if (type == QtFatalMsg) {
        flush();
        std::abort();
    }
}

void Logger::addObserver(LogObserver* observer)
{
    QMutexLocker guard(&observerLock());
    observers().append(observer);
}

void Logger::removeObserver(LogObserver* observer)
{
    QMutexLocker guard(&observerLock());
    observers().removeAll(observer);
}

void Logger::flush()
{
    if (LogWriter* w = writer())
        w->flush();
}

namespace {
thread_local QString tThreadName;
}

void Logger::setCurrentThreadName(const QString& name)
{
    tThreadName = name;
}

QString Logger::currentThreadName()
{
    if (!tThreadName.isEmpty())
        return tThreadName;
    if (::syscall(SYS_gettid) == ::getpid())
        return QStringLiteral("main");
    char name[17] = {};
    ::prctl(PR_GET_NAME, name, 0, 0, 0);
    return QString::fromUtf8(name);
}

void Logger::dispatch(const LogRecord& record)
{
    {
        QMutexLocker guard(&observerLock());
        for (LogObserver* observer : observers())
            observer->logged(record);
    }
    std::string line = formatLine(record).toStdString();
    if (LogWriter* w = writer()) {
        w->enqueue(std::move(line));
    } else {
        ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
        (void)ignored;
    }
}

QString Logger::formatLine(const LogRecord& record)
{
    const QString start = underJournal()
        ? QString::fromLatin1(journalPrefix(record.level))
        : QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs) + QLatin1Char(' ');
    // Some messages end in their own newline; a line still ends in exactly one.
    QString text = record.text();
    while (text.endsWith(QLatin1Char('\n')))
        text.chop(1);
    return start + QString::fromLatin1(LogRecord::levelName(record.level)) + QStringLiteral(" [")
        + record.threadName + QStringLiteral("] ") + text + QLatin1Char('\n');
}
