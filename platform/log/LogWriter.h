#pragma once

#include <condition_variable>
#include <deque>
#include <mutex>
#include <string>
#include <thread>

// Writes finished log lines to a file descriptor (stderr) from a thread of its own, so that a
// caller never waits on a pipe that its reader has stopped draining.
//
// Thread: enqueue() from any thread; the writer thread is owned and joined by the destructor,
// which first writes what is queued. Guarded by mLock: mQueue, mQueuedBytes, mDropped,
// mStopping, mBusy. When more than kMaxQueuedBytes wait, new lines are dropped and counted; the
// next line written says how many were lost.
class LogWriter
{
public:
    explicit LogWriter(int fd);
    ~LogWriter();

    void enqueue(std::string line);
    // Blocks until every line queued before the call has been written.
    void flush();

private:
    void run();
    bool takeBatch(std::deque<std::string>* batch, size_t* dropped);
    void writeAll(const std::string& text);

    // A stalled reader costs at most this much memory; a megabyte holds thousands of lines,
    // far more than a burst of logging produces while the reader is merely slow.
    static constexpr size_t kMaxQueuedBytes = 1024 * 1024;

    const int mFd;
    std::mutex mLock;
    std::condition_variable mWake;
    std::condition_variable mDrained;
    std::deque<std::string> mQueue;
    size_t mQueuedBytes = 0;
    size_t mDropped = 0;
    bool mStopping = false;
    bool mBusy = false;
    std::thread mThread;
};
