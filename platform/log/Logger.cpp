#include "platform/log/Logger.h"

#include "platform/log/LogFormat.h"
#include "platform/log/LogObserver.h"
#include "platform/log/LogWriter.h"

#include <QMutex>
#include <QVector>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <poll.h>
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

// A line may wait this long for the writer before exit goes on without it: shutdown flushes
// twice (after the finalisers and at exit), and the process must end within a couple of seconds
// of SIGTERM even when nobody reads stderr.
constexpr std::chrono::milliseconds kFlushDeadline{500};

// Late lines (logged after the writer is gone) are written directly, but only when stderr can
// take them now: a full pipe must not stop the process from ending.
void writeIfReady(const std::string& line)
{
    pollfd ready{STDERR_FILENO, POLLOUT, 0};
    if (::poll(&ready, 1, 0) == 1 && (ready.revents & POLLOUT)) {
        ssize_t ignored = ::write(STDERR_FILENO, line.data(), line.size());
        (void)ignored;
    }
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
        w->flush(kFlushDeadline);
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
    std::string line = LogFormat::line(record);
    if (LogWriter* w = writer())
        w->enqueue(std::move(line));
    else
        writeIfReady(line);
}
