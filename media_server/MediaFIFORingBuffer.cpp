#include "media_server/MediaFIFORingBuffer.h"

#include <QMutexLocker>

#include <cstring>

namespace MediaV2 {

MediaFIFORingBuffer::MediaFIFORingBuffer(int capacity)
    : mCapacity(qMax(capacity, 1))
{
    QMutexLocker lock(&mLock);
    mStorage = QByteArray(mCapacity, '\0');
    mWritePos = mReadPos = mUsed = 0;
}

int MediaFIFORingBuffer::used() const
{
    QMutexLocker lock(&mLock);
    return mUsed;
}

bool MediaFIFORingBuffer::enqueue(const char* data, int size)
{
    QMutexLocker lock(&mLock);
    if (size < 0 || qint64(mUsed) + size >= mCapacity)
        return false;
    if (size == 0)
        return true;
    const int first = qMin(size, mCapacity - mWritePos);
    std::memcpy(mStorage.data() + mWritePos, data, size_t(first));
    std::memcpy(mStorage.data(), data + first, size_t(size - first));
    mWritePos = int((qint64(mWritePos) + size) % mCapacity);
    mUsed += size;
    return true;
}

bool MediaFIFORingBuffer::dequeue(char* out, int size)
{
    QMutexLocker lock(&mLock);
    if (size < 0 || mUsed - size < 0)
        return false;
    if (size == 0)
        return true;
    const int first = qMin(size, mCapacity - mReadPos);
    std::memcpy(out, mStorage.constData() + mReadPos, size_t(first));
    std::memcpy(out + first, mStorage.constData(), size_t(size - first));
    mReadPos = int((qint64(mReadPos) + size) % mCapacity);
    mUsed -= size;
    return true;
}

} // namespace MediaV2
