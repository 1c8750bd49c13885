#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <thread>

// Writes finished log lines to a file descriptor (stderr) from a thread of its own, so that a
// caller never waits on a pipe that its reader has stopped draining.
//
// When more than kMaxQueuedBytes wait, new lines are dropped and counted; the next line written
// is a WARN line, formatted like every other, saying how many were lost.
//
// Thread: enqueue() and flush() from any thread. The writer thread shares the queue (its lock
// guards the lines, the byte and drop counts and the stop request) and may outlive this object:
// a reader that never drains leaves it blocked in write() for good, so neither flush() nor the
// destructor waits for it longer than their deadline. The destructor joins a writer that
// finished and leaves a stuck one behind, which then ends with the process.
class LogWriter
{
public:
    explicit LogWriter(int fd);
    ~LogWriter();
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    void enqueue(std::string line);
    // Waits until every line queued before the call has been written, or until the deadline;
    // false when the deadline came first.
    bool flush(std::chrono::milliseconds deadline);

    // How long the destructor lets the writer finish what is queued: a blocked reader must not
    // hold up the process's exit (a service manager stops waiting after a few seconds).
    static constexpr std::chrono::milliseconds kStopDeadline{500};

private:
    class Queue;
    std::shared_ptr<Queue> mQueue;
    std::thread mThread;
};
