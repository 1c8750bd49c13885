// Throughput of MediaV2::MetadataExtractor on a live stream built in memory: random bytes as
// audio with a title block after every interval, cut into chunks of one size and fed to
// extract() in order, as the live-stream FIFO feeds it downloaded chunks. The floor is memcpy
// of the same chunks into a buffer of the chunk's size.
//
// extract() works in place, so each chunk is first copied into a QByteArray whose capacity is
// reused from chunk to chunk (only after a block was cut from a chunk's very front, when a
// chunk starts inside a block, does Qt allocate anew on the next resize). That copy is timed as part
// of ours, and it is exactly the floor's work: the figures compare "copy + extract" with
// "copy", both over the same input bytes, and the difference is what the extractor costs.
//
// Every interval carries a block with a new title, the extractor's worst case (stations mostly
// send empty blocks between title changes). Ours and the floor alternate round by round, each
// round making several passes over the stream; each figure is the median of the rounds' rates
// (the machine is shared). Before timing, one pass per chunk size checks that exactly the audio
// comes out and the titles in order: the bench must not time a broken extractor.
//
// Usage: bench-icy-throughput [ROUNDS [PASSES-PER-ROUND]]

#include "media_server/MetadataExtractor.h"
#include "platform/core/Finalizer.h"
#include "platform/log/Logger.h"

#include <QCoreApplication>
#include <QElapsedTimer>
#include <QStringList>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

using MediaV2::MetadataExtractor;

namespace {

// A common "icy-metaint" of stations.
constexpr int kInterval = 16000;
// Intervals in the stream: 4 MB of audio, more than a core's own caches hold, so that a pass
// reads its input from further away as a download's fresh chunks come.
constexpr int kIntervals = 250;
// Title text lengths of real stations' blocks ("StreamTitle='Artist - Title';"), before the
// padding to 16-byte units.
constexpr int kMinTitleText = 32;
constexpr int kMaxTitleText = 100;
// Chunk sizes of downloads: the larger first, the smaller is the summary's.
constexpr int kChunkSizes[] = {64 * 1024, 16 * 1024};
constexpr double kTargetRatio = 0.25;

const QString kTitleKey = QStringLiteral("StreamTitle");

struct Stream
{
    QByteArray bytes;      // what the station sends
    QByteArray audio;      // what must come out
    QStringList titles;    // every block's title, in order
    std::vector<qsizetype> blockEnds;   // where each block ends in `bytes`
};

// The title of block `index`, its whole "StreamTitle='...';" text `length` bytes long.
QByteArray titleText(int index, int length)
{
    QByteArray title = "Band " + QByteArray::number(index) + " - Song ";
    const int fill = length - int(title.size()) - int(sizeof("StreamTitle='';") - 1);
    for (int i = 0; i < fill; ++i)
        title.append(char('a' + (index + i) % 26));
    return title;
}

// A length byte and the text NUL-padded to a multiple of 16, as stations send it.
QByteArray block(const QByteArray& text)
{
    const QByteArray padded = text + QByteArray((16 - text.size() % 16) % 16, '\0');
    return char(padded.size() / 16) + padded;
}

Stream buildStream()
{
    std::mt19937 random(20240611);
    std::uniform_int_distribution<int> byte(0, 255), length(kMinTitleText, kMaxTitleText);
    Stream stream;
    for (int i = 0; i < kIntervals; ++i) {
        QByteArray audio(kInterval, Qt::Uninitialized);
        for (char& c : audio)
            c = char(byte(random));
        const QByteArray title = titleText(i, length(random));
        stream.audio += audio;
        stream.bytes += audio + block("StreamTitle='" + title + "';");
        stream.titles.append(QString::fromLatin1(title));
        stream.blockEnds.push_back(stream.bytes.size());
    }
    return stream;
}

// Keeps the compiler from dropping stores to `target` that nothing in this program reads.
void escape(void* target)
{
    asm volatile("" : : "g"(target) : "memory");
}

// Extractors ready for `count` passes from the stream's start. Setting the interval logs a line,
// and a line wakes the log's writer thread: inside the timed passes that cost a tenth of ours,
// so the extractors are set up and the log drained before the timer starts.
std::vector<MetadataExtractor> readyExtractors(int count)
{
    std::vector<MetadataExtractor> extractors(static_cast<size_t>(count));
    for (MetadataExtractor& extractor : extractors)
        extractor.setMetadataInterval(kInterval);
    Logger::flush();
    return extractors;
}

// One pass of ours: each chunk copied into `buffer`, then extract(); appends what stays and the
// titles when `audio` and `titles` are given.
void extractPass(MetadataExtractor& extractor, const QByteArray& stream, int chunkSize, QByteArray& buffer,
                 QByteArray* audio = nullptr, QStringList* titles = nullptr)
{
    for (qsizetype at = 0; at < stream.size(); at += chunkSize) {
        const qsizetype size = std::min<qsizetype>(chunkSize, stream.size() - at);
        buffer.resize(size);
        std::memcpy(buffer.data(), stream.constData() + at, size_t(size));
        const QHash<QString, QString> pairs = extractor.extract(buffer);
        if (audio)
            audio->append(buffer);
        if (titles && pairs.contains(kTitleKey))
            titles->append(pairs.value(kTitleKey));
    }
}

// One pass of the floor: each chunk copied into `target`.
void copyPass(const QByteArray& stream, int chunkSize, char* target)
{
    for (qsizetype at = 0; at < stream.size(); at += chunkSize) {
        const qsizetype size = std::min<qsizetype>(chunkSize, stream.size() - at);
        std::memcpy(target, stream.constData() + at, size_t(size));
        escape(target);
    }
}

// The titles extract() answers at this chunk size: one answer per chunk, whose pairs are a hash,
// so of the blocks completing in one chunk only the last one's title comes out.
QStringList titlesPerChunk(const Stream& stream, int chunkSize)
{
    QStringList titles;
    qsizetype lastChunk = -1;
    for (size_t i = 0; i < stream.blockEnds.size(); ++i) {
        const qsizetype chunk = (stream.blockEnds[i] - 1) / chunkSize;
        if (chunk == lastChunk)
            titles.removeLast();
        titles.append(stream.titles.at(qsizetype(i)));
        lastChunk = chunk;
    }
    return titles;
}

bool extractsExactly(const Stream& stream, int chunkSize)
{
    QByteArray buffer, audio;
    QStringList titles;
    extractPass(readyExtractors(1).front(), stream.bytes, chunkSize, buffer, &audio, &titles);
    const QStringList expected = titlesPerChunk(stream, chunkSize);
    if (audio == stream.audio && titles == expected)
        return true;
    std::fprintf(stderr,
                 "icy: BROKEN EXTRACTOR at %d-byte chunks: %lld audio bytes out of %lld (%s), %lld titles of %lld (%s); "
                 "not timing it\n",
                 chunkSize, qlonglong(audio.size()), qlonglong(stream.audio.size()),
                 audio == stream.audio ? "equal" : "different", qlonglong(titles.size()),
                 qlonglong(expected.size()), titles == expected ? "equal" : "different");
    return false;
}

double medianOf(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// MB/s of input bytes over `passes` passes of `pass` (called with the pass's index).
template <class Pass>
double rateOf(qsizetype streamBytes, int passes, Pass pass)
{
    QElapsedTimer timer;
    timer.start();
    for (int i = 0; i < passes; ++i)
        pass(i);
    return double(streamBytes) * passes / 1e6 / (timer.nsecsElapsed() / 1e9);
}

struct Rates
{
    double ours = 0;
    double floor = 0;
};

Rates measure(const QByteArray& stream, int chunkSize, int rounds, int passes)
{
    QByteArray buffer;
    buffer.reserve(chunkSize);
    std::vector<char> target(size_t(chunkSize), 0);
    std::vector<double> ours, floor;
    for (int round = 0; round < rounds; ++round) {
        std::vector<MetadataExtractor> extractors = readyExtractors(passes);
        ours.push_back(rateOf(stream.size(), passes, [&](int i) { extractPass(extractors[size_t(i)], stream, chunkSize, buffer); }));
        floor.push_back(rateOf(stream.size(), passes, [&](int) { copyPass(stream, chunkSize, target.data()); }));
    }
    return {medianOf(ours), medianOf(floor)};
}

int run(int rounds, int passes)
{
    const Stream stream = buildStream();
    std::printf("stream: %.2f MB (%d intervals of %d audio bytes, each followed by a %d-%d byte title block), "
                "%d rounds of %d passes\n",
                stream.bytes.size() / 1e6, kIntervals, kInterval, kMinTitleText, kMaxTitleText, rounds, passes);
    for (int chunkSize : kChunkSizes)
        if (!extractsExactly(stream, chunkSize))
            return 1;
    Rates last;
    for (int chunkSize : kChunkSizes) {
        last = measure(stream.bytes, chunkSize, rounds, passes);
        std::printf("%d KiB chunks: copy + extract() %.0f MB/s, floor (memcpy) %.0f MB/s, ratio %.3f (target >= %.2f)\n",
                    chunkSize / 1024, last.ours, last.floor, last.ours / last.floor, kTargetRatio);
    }
    std::printf("icy: %.0f MB/s vs %.0f MB/s (ratio %.3f)\n", last.ours, last.floor, last.ours / last.floor);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 9;
    const int passes = argc > 2 ? std::atoi(argv[2]) : 5;
    if (rounds < 1 || passes < 1) {
        std::fprintf(stderr, "usage: bench-icy-throughput [ROUNDS [PASSES-PER-ROUND]]\n");
        return 2;
    }
    const int status = run(rounds, passes);
    Finalizer::instance()->finalize();
    Logger::flush();
    return status;
}
