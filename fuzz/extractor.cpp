// Fuzz target: hostile bytes through MetadataExtractor::extract(). The input chooses an interval
// (mostly small, so that blocks come often; otherwise any int, 0, negative and huge included)
// and a stream cut into chunks of sizes it also chooses. Beyond memory errors, undefined
// behaviour and hangs, which the sanitizers and libFuzzer catch, each chunk must come out as
// the plainest reading of the stream format says: exactly its audio, exactly the pairs of the
// blocks it completes; audioBytes() must count the audio let through; and the only consistency
// rule the extractor may report broken is the refused interval.

#include "fuzz/FuzzCheck.h"
#include "media_server/MetadataExtractor.h"
#include "platform/log/LogObserver.h"
#include "platform/log/Logger.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <atomic>

using MediaV2::MetadataExtractor;

namespace {

// Intervals the input picks directly: a few block lengths of audio, so that a short input
// crosses many length bytes.
constexpr int kMaxSmallInterval = 64;
// Longer than most small intervals, so that one chunk may hold several blocks, and short
// enough that an input is cut into many chunks.
constexpr size_t kMaxChunk = 300;

// Counts the consistency rules reported broken (LOG_ASSERT logs and carries on).
class AssertCounter : public LogObserver
{
public:
    void logged(const LogRecord& record) override
    {
        if (record.isAssert)
            ++mCount;
    }
    int count() const { return mCount; }

private:
    std::atomic<int> mCount{0};
};

AssertCounter sAsserts;

// The stream format read one byte at a time: `interval` audio bytes, a length byte, that many
// times 16 bytes of block, and again. An interval <= 0 leaves every byte in place.
class StreamModel
{
public:
    explicit StreamModel(int interval) : mInterval(interval), mUntilBlock(interval) {}

    // The chunk's audio; the pairs of the blocks it completes go to `pairs`.
    QByteArray feed(const QByteArray& chunk, QHash<QString, QString>& pairs)
    {
        if (mInterval <= 0)
            return chunk;
        QByteArray audio;
        for (char byte : chunk) {
            if (mRemaining > 0)
                takeBlockByte(byte, pairs);
            else if (mUntilBlock > 0)
                takeAudioByte(byte, audio);
            else
                takeLengthByte(byte);
        }
        return audio;
    }

private:
    void takeAudioByte(char byte, QByteArray& audio)
    {
        audio.append(byte);
        --mUntilBlock;
    }
    void takeLengthByte(char byte)
    {
        mRemaining = int(quint8(byte)) * 16;
        if (mRemaining == 0)
            mUntilBlock = mInterval;
    }
    void takeBlockByte(char byte, QHash<QString, QString>& pairs)
    {
        mBlock.append(byte);
        if (--mRemaining > 0)
            return;
        MetadataExtractor::convertMetadataBlock(mBlock, pairs);
        mBlock.clear();
        mUntilBlock = mInterval;
    }

    const int mInterval;
    int mUntilBlock;
    int mRemaining = 0;
    QByteArray mBlock;
};

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    Logger::addObserver(&sAsserts);
    return 0;
}

// Integers come from the input's end and chunk bytes from its start, so that a mutation of
// the stream does not reshuffle the chunking and the other way round.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const int interval = input.ConsumeBool() ? input.ConsumeIntegral<int>() : input.ConsumeIntegralInRange(0, kMaxSmallInterval);
    const int refusals = interval > 0 ? 0 : 1;
    const int assertsBefore = sAsserts.count();
    MetadataExtractor extractor;
    extractor.setMetadataInterval(interval);
    // The line it logs is freed by the logger's thread; waiting for it keeps this input's
    // allocations balanced, else libFuzzer suspects a leak and scans for one after every input.
    Logger::flush();
    StreamModel model(interval);
    quint64 audioOut = 0;
    while (input.remaining_bytes() > 0) {
        const std::string bytes = input.ConsumeBytesAsString(input.ConsumeIntegralInRange<size_t>(0, kMaxChunk));
        QByteArray chunk(bytes.data(), qsizetype(bytes.size()));
        QHash<QString, QString> modelPairs;
        const QByteArray modelAudio = model.feed(chunk, modelPairs);
        const QHash<QString, QString> pairs = extractor.extract(chunk);
        fuzzCheck(chunk == modelAudio, "a chunk's output is not its audio");
        fuzzCheck(pairs == modelPairs, "a chunk's pairs are not those of the blocks it completes");
        audioOut += quint64(chunk.size());
        fuzzCheck(extractor.audioBytes() == (interval > 0 ? audioOut : 0), "audioBytes() is not the audio let through");
    }
    fuzzCheck(sAsserts.count() - assertsBefore == refusals, "a consistency rule other than the interval's was reported broken");
    return 0;
}
