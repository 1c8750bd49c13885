#include "platform/log/LogWriter.h"

#include "platform/log/LogFormat.h"

#include <cerrno>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <pthread.h>
#include <unistd.h>

// The state the writer thread shares with its owner; it lives as long as either of them.
class LogWriter::Queue
{
public:
    explicit Queue(int fd) : mFd(fd) {}

    void enqueue(std::string line);
    bool waitDrained(std::chrono::milliseconds deadline);
    // Asks the writer to end once the queue is written; true when it did so by the deadline.
    bool stop(std::chrono::milliseconds deadline);
    void run();

private:
    bool takeBatch(std::deque<std::string>* batch, size_t* dropped);
    void writeDroppedNotice(size_t dropped);
    void writeAll(const std::string& text);

    // A stalled reader costs at most this much memory; a megabyte holds thousands of lines,
    // far more than a burst of logging produces while the reader is merely slow.
    static constexpr size_t kMaxQueuedBytes = 1024 * 1024;

    const int mFd;
    std::mutex mLock;
    std::condition_variable mWake;
    std::condition_variable mDrained;
    std::deque<std::string> mLines;   // guarded by mLock, like every member below
    size_t mQueuedBytes = 0;
    size_t mDropped = 0;
    bool mStopping = false;
    bool mBusy = false;       // the writer holds a batch it has not finished writing
    bool mFinished = false;   // the writer thread left run()
};

void LogWriter::Queue::enqueue(std::string line)
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mQueuedBytes + line.size() > kMaxQueuedBytes) {
            ++mDropped;
            return;
        }
        mQueuedBytes += line.size();
        mLines.push_back(std::move(line));
    }
    mWake.notify_one();
}

bool LogWriter::Queue::waitDrained(std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> guard(mLock);
    return mDrained.wait_for(guard, deadline, [this] { return (mLines.empty() && mDropped == 0 && !mBusy) || mFinished; });
}

bool LogWriter::Queue::stop(std::chrono::milliseconds deadline)
{
    std::unique_lock<std::mutex> guard(mLock);
    mStopping = true;
    mWake.notify_one();
    return mDrained.wait_for(guard, deadline, [this] { return mFinished; });
}

void LogWriter::Queue::run()
{
    pthread_setname_np(pthread_self(), "LogWriter");
    std::deque<std::string> batch;
    size_t dropped = 0;
    while (takeBatch(&batch, &dropped)) {
        if (dropped > 0)
            writeDroppedNotice(dropped);
        for (const std::string& line : batch)
            writeAll(line);
        batch.clear();
    }
    std::lock_guard<std::mutex> guard(mLock);
    mFinished = true;
    mDrained.notify_all();
}

// Waits for lines; returns false once stopping and nothing is left to write.
bool LogWriter::Queue::takeBatch(std::deque<std::string>* batch, size_t* dropped)
{
    std::unique_lock<std::mutex> guard(mLock);
    mBusy = false;
    mDrained.notify_all();
    mWake.wait(guard, [this] { return !mLines.empty() || mDropped > 0 || mStopping; });
    if (mLines.empty() && mDropped == 0)
        return false;
    batch->swap(mLines);
    *dropped = mDropped;
    mDropped = 0;
    mQueuedBytes = 0;
    mBusy = true;
    return true;
}

void LogWriter::Queue::writeDroppedNotice(size_t dropped)
{
    LogRecord record;
    record.level = LogRecord::Warn;
    record.function = QString::fromLatin1(__func__);
    record.threadName = QStringLiteral("LogWriter");
    record.message = QStringLiteral("%1 log lines dropped: stderr is not being read").arg(dropped);
    writeAll(LogFormat::line(record));
}

void LogWriter::Queue::writeAll(const std::string& text)
{
    const char* data = text.data();
    size_t left = text.size();
    while (left > 0) {
        ssize_t n = ::write(mFd, data, left);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return;   // nowhere to write: the line is lost, nothing else can be done
        data += n;
        left -= size_t(n);
    }
}

LogWriter::LogWriter(int fd)
    : mQueue(std::make_shared<Queue>(fd))
{
    std::shared_ptr<Queue> queue = mQueue;
    mThread = std::thread([queue] { queue->run(); });
}

LogWriter::~LogWriter()
{
    if (mQueue->stop(kStopDeadline))
        mThread.join();
    else
        mThread.detach();   // stuck in write(): it keeps the queue alive and ends with the process
}

void LogWriter::enqueue(std::string line)
{
    mQueue->enqueue(std::move(line));
}

bool LogWriter::flush(std::chrono::milliseconds deadline)
{
    return mQueue->waitDrained(deadline);
}
