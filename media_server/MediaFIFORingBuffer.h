#pragma once

#include <QByteArray>
#include <QMutex>

namespace MediaV2 {

// A fixed-capacity byte ring between the live stream's download and the pipeline's appsrc.
// It is never filled to the last byte: a write that would make the used count reach the
// capacity is refused whole, so "full" and "empty" can never be confused and a refused chunk
// is a clean gap in the audio, not a torn one.
//
// Thread: any; every read or change of the counters and the storage happens under mLock, and
// no other lock is taken while it is held. Owns its storage. Failure: enqueue() and dequeue()
// return false and change nothing when the bytes do not fit or are not there.
class MediaFIFORingBuffer
{
public:
    explicit MediaFIFORingBuffer(int capacity);

    int capacity() const { return mCapacity; }
    int used() const;
    // Copies all of data in, or nothing when used + size would reach the capacity.
    bool enqueue(const char* data, int size);
    // Copies exactly size bytes out, or nothing when fewer than size are queued.
    bool dequeue(char* out, int size);

private:
    const int mCapacity;
    QByteArray mStorage;     // guarded by mLock
    int mWritePos = 0;       // guarded by mLock
    int mReadPos = 0;        // guarded by mLock
    int mUsed = 0;           // guarded by mLock
    mutable QMutex mLock;
};

} // namespace MediaV2
