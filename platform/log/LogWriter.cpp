#include "platform/log/LogWriter.h"

#include <cerrno>
#include <pthread.h>
#include <unistd.h>

LogWriter::LogWriter(int fd)
    : mFd(fd)
{
    mThread = std::thread([this] { run(); });
}

LogWriter::~LogWriter()
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        mStopping = true;
    }
    mWake.notify_one();
    mThread.join();
}

void LogWriter::enqueue(std::string line)
{
    {
        std::lock_guard<std::mutex> guard(mLock);
        if (mQueuedBytes + line.size() > kMaxQueuedBytes) {
            ++mDropped;
            return;
        }
        mQueuedBytes += line.size();
        mQueue.push_back(std::move(line));
    }
    mWake.notify_one();
}

void LogWriter::flush()
{
    std::unique_lock<std::mutex> guard(mLock);
    mDrained.wait(guard, [this] { return (mQueue.empty() && !mBusy) || mStopping; });
}

void LogWriter::run()
{
    pthread_setname_np(pthread_self(), "LogWriter");
    std::deque<std::string> batch;
    size_t dropped = 0;
    while (takeBatch(&batch, &dropped)) {
        if (dropped > 0)
            writeAll("WARN [LogWriter] " + std::to_string(dropped) + " log lines dropped: stderr is not being read\n");
        for (const std::string& line : batch)
            writeAll(line);
        batch.clear();
    }
}

// Waits for lines; returns false once stopping and nothing is left to write.
bool LogWriter::takeBatch(std::deque<std::string>* batch, size_t* dropped)
{
    std::unique_lock<std::mutex> guard(mLock);
    mBusy = false;
    mDrained.notify_all();
    mWake.wait(guard, [this] { return !mQueue.empty() || mDropped > 0 || mStopping; });
    if (mQueue.empty() && mDropped == 0)
        return false;
    batch->swap(mQueue);
    *dropped = mDropped;
    mDropped = 0;
    mQueuedBytes = 0;
    mBusy = true;
    return true;
}

void LogWriter::writeAll(const std::string& text)
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
