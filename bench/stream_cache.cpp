// Lookup latency of the stream cache: MediaV2::StreamCache on its own thread, asked from the
// main thread by a queued "findStream" and answering with its queued streamFileFound, beside the
// same lookup and last-use update on a bare SQLite connection to a copy of the same table (the
// floor), at several table sizes. Also the bare thread round trip (a queued call there and a
// queued call back, nothing else), which shows how much of the difference is the hop; and at
// the largest size the time of init() and of a pruning pass with and without work to do.
//
// The kinds of lookup alternate round by round over the same random keys, so all meet the same
// machine load; each figure is the median of the rounds' figures (the machine is shared).
//
// Usage: bench-stream-cache [ROUNDS [LOOKUPS-PER-ROUND]]

#include "media_server/StreamCache.h"
#include "media_server/StreamCacheDatabase.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/Finalizer.h"
#include "platform/core/SimpleTThread.h"
#include "platform/log/Logger.h"

#include <QCoreApplication>
#include <QDateTime>
#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QTemporaryDir>

#include <sqlite3.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <iterator>
#include <random>
#include <vector>

using MediaV2::StreamCache;
using MediaV2::StreamCacheDatabase;

namespace {

const int kSizes[] = {100, 10000, 100000};
// A stored file's size: small enough that 100,000 of them cost a few seconds to write, and a
// whole number of them per MiB, so a free-space shortfall of 1 MiB removes exactly this many.
constexpr int kFileBytes = 1024;
constexpr int kFilesPerMib = 1024 * 1024 / kFileBytes;
// Limits far above any table here, so that nothing is pruned while lookups are timed.
constexpr int kUnlimitedMb = 1000000;
constexpr unsigned kUnlimitedCount = 10000000;
// Pretended free space for the pruning pass with work: 1 MiB short of what is required.
constexpr int kPretendedFreeMb = 1000;

constexpr double kTargetP99Us = 1000;
constexpr double kTargetFloorRatio = 3;
constexpr double kTargetInitMs = 500;
// Lookups slower than this are counted: the tail that decides the p99 (SQLite's WAL checkpoints
// with their fsyncs land here).
constexpr qint64 kSlowNanos = 500000;

struct Figures
{
    double medianUs = 0;
    double p99Us = 0;
};

// Per-round figures of one kind of lookup; the reported figure is their median.
struct Rounds
{
    std::vector<double> medians;
    std::vector<double> p99s;
    int slow = 0;
    int count = 0;
    int misses = 0;
};

double medianOf(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

Figures figuresOf(std::vector<qint64> nanos)
{
    std::sort(nanos.begin(), nanos.end());
    return {nanos[nanos.size() / 2] / 1000.0, nanos[std::min(nanos.size() - 1, nanos.size() * 99 / 100)] / 1000.0};
}

void addRound(Rounds* rounds, const std::vector<qint64>& nanos)
{
    const Figures figures = figuresOf(nanos);
    rounds->medians.push_back(figures.medianUs);
    rounds->p99s.push_back(figures.p99Us);
    rounds->slow += int(std::count_if(nanos.begin(), nanos.end(), [](qint64 n) { return n > kSlowNanos; }));
    rounds->count += int(nanos.size());
}

Figures summaryOf(const Rounds& rounds)
{
    return {medianOf(rounds.medians), medianOf(rounds.p99s)};
}

bool setting(const char* key, const QString& text)
{
    QString error;
    if (ConfigStore::instance()->set(QString::fromLatin1(key), text, &error))
        return true;
    std::fprintf(stderr, "cannot set %s: %s\n", key, qPrintable(error));
    return false;
}

// The cache keys of the table: URL-like, as the buffer's keys are.
QString keyOf(int index)
{
    return QStringLiteral("https://media.example.net/tracks/%1/stream.mp3?quality=high").arg(index);
}

bool writeFiles(const QString& folder, int count)
{
    const QByteArray bytes(kFileBytes, 'x');
    for (int i = 0; i < count; ++i) {
        QFile file(folder + QStringLiteral("f%1").arg(i));
        if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size()) {
            std::fprintf(stderr, "cannot write %s\n", qPrintable(file.fileName()));
            return false;
        }
    }
    return true;
}

// One entry per file, each last used a second after the one before, all within the expiry.
bool fillTable(const QString& dbFile, int count)
{
    StreamCacheDatabase db;
    if (!db.open(dbFile) || !db.beginBatch()) {
        std::fprintf(stderr, "cannot open %s: %s\n", qPrintable(dbFile), qPrintable(db.lastError()));
        return false;
    }
    const qint64 oldest = QDateTime::currentSecsSinceEpoch() - count;
    StreamCacheDatabase::Entry replaced;
    for (int i = 0; i < count; ++i)
        if (!db.put({keyOf(i), QStringLiteral("f%1").arg(i), kFileBytes, oldest + i}, &replaced)) {
            std::fprintf(stderr, "cannot fill %s: %s\n", qPrintable(dbFile), qPrintable(db.lastError()));
            return false;
        }
    return db.commitBatch();
}

// The cache's folder with `count` files and their table, and a copy of the table for the floor
// (made after the connection closed, so the whole table is in the main file).
bool populate(const QString& folder, int count)
{
    if (!QDir().mkpath(folder + QStringLiteral("streams")) || !writeFiles(folder + QStringLiteral("streams/"), count)
        || !fillTable(folder + QStringLiteral("stream_cache.db"), count))
        return false;
    return QFile::copy(folder + QStringLiteral("stream_cache.db"), folder + QStringLiteral("floor.db"));
}

int filesIn(const QString& folder)
{
    return int(QDir(folder).entryList(QDir::Files).size());
}

// The floor: the cache's lookup and last-use update as two prepared statements on a bare
// connection with the cache's journal settings.
class BareLookup
{
public:
    ~BareLookup()
    {
        sqlite3_finalize(mFind);
        sqlite3_finalize(mTouch);
        sqlite3_close(mDb);
    }

    bool open(const QString& path)
    {
        return sqlite3_open(path.toUtf8().constData(), &mDb) == SQLITE_OK
            && sqlite3_exec(mDb, "PRAGMA journal_mode=WAL; PRAGMA synchronous=NORMAL", nullptr, nullptr, nullptr) == SQLITE_OK
            && prepare("SELECT cachekey, file, size, last_access FROM streams WHERE cachekey = ?", &mFind)
            && prepare("UPDATE streams SET last_access = ?, last_use = ? WHERE cachekey = ?", &mTouch);
    }

    // True on a hit whose last use was recorded.
    bool lookup(const QByteArray& key)
    {
        sqlite3_bind_text(mFind, 1, key.constData(), int(key.size()), SQLITE_STATIC);
        const bool found = sqlite3_step(mFind) == SQLITE_ROW && sqlite3_column_text(mFind, 1) != nullptr
            && sqlite3_column_int64(mFind, 2) == kFileBytes && sqlite3_column_int64(mFind, 3) > 0;
        sqlite3_reset(mFind);
        if (!found)
            return false;
        sqlite3_bind_int64(mTouch, 1, std::time(nullptr));
        sqlite3_bind_int64(mTouch, 2, ++mLastUse);   // above every use the fill gave, as the cache's counter
        sqlite3_bind_text(mTouch, 3, key.constData(), int(key.size()), SQLITE_STATIC);
        const bool touched = sqlite3_step(mTouch) == SQLITE_DONE;
        sqlite3_reset(mTouch);
        return touched;
    }

private:
    bool prepare(const char* sql, sqlite3_stmt** statement)
    {
        return sqlite3_prepare_v2(mDb, sql, -1, statement, nullptr) == SQLITE_OK;
    }

    sqlite3* mDb = nullptr;
    sqlite3_stmt* mFind = nullptr;
    sqlite3_stmt* mTouch = nullptr;
    qint64 mLastUse = qint64(1) << 40;
};

// The cache as its owner runs it: on a "StreamCacheThread", reached by queued invocations by
// name, its answers queued back to an object on the main thread.
class CacheOnThread
{
public:
    CacheOnThread(int maxSizeMb, unsigned maxCount)
        : mThread(QStringLiteral("StreamCacheThread"))
        , mCache(new StreamCache(maxSizeMb, maxCount))
    {
        mCache->moveToThread(&mThread);
        mEcho.moveToThread(&mThread);
        QObject::connect(mCache, &StreamCache::streamFileFound, &mReceiver,
                         [this](bool inCache, const QString&, qint64) { answered(inCache); }, Qt::QueuedConnection);
        mThread.start();
    }

    ~CacheOnThread()
    {
        QMetaObject::invokeMethod(mCache, "close", Qt::BlockingQueuedConnection);
        mCache->deleteLater();   // deleted by the thread as it ends
        mThread.stop();
    }

    // A call run to its end on the cache thread, in nanoseconds from the invocation.
    qint64 timedBlocking(const char* method)
    {
        QElapsedTimer timer;
        timer.start();
        QMetaObject::invokeMethod(mCache, method, Qt::BlockingQueuedConnection);
        return timer.nsecsElapsed();
    }

    qint64 timedLookup(const QString& key, bool* hit)
    {
        QElapsedTimer timer;
        timer.start();
        QMetaObject::invokeMethod(mCache, "findStream", Qt::QueuedConnection, Q_ARG(QString, key));
        waitForAnswer();
        *hit = mHit;
        return timer.nsecsElapsed();
    }

    // A queued call to the cache thread that only queues the answer back.
    qint64 timedHop()
    {
        QElapsedTimer timer;
        timer.start();
        QMetaObject::invokeMethod(&mEcho, [this] {
            QMetaObject::invokeMethod(&mReceiver, [this] { answered(true); }, Qt::QueuedConnection);
        }, Qt::QueuedConnection);
        waitForAnswer();
        return timer.nsecsElapsed();
    }

private:
    void answered(bool hit)
    {
        mHit = hit;
        mAnswered = true;
    }

    void waitForAnswer()
    {
        while (!mAnswered)
            QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
        mAnswered = false;
    }

    SimpleTThread mThread;
    StreamCache* mCache;   // lives on mThread; deleted there
    QObject mEcho;         // lives on mThread; destroyed after it stopped
    QObject mReceiver;     // main thread
    bool mAnswered = false;
    bool mHit = false;
};

struct Lookups
{
    Rounds ours;
    Rounds floor;
    Rounds hop;
};

// One round: the same keys through the cache, the floor and the bare hop, one kind after the other.
void lookupRound(CacheOnThread& cache, BareLookup& floor, const std::vector<int>& picks, Lookups* lookups)
{
    std::vector<qint64> ours, bare, hops;
    for (int pick : picks) {
        bool hit = false;
        ours.push_back(cache.timedLookup(keyOf(pick), &hit));
        lookups->ours.misses += hit ? 0 : 1;
    }
    for (int pick : picks) {
        const QByteArray key = keyOf(pick).toUtf8();
        QElapsedTimer timer;
        timer.start();
        const bool hit = floor.lookup(key);
        bare.push_back(timer.nsecsElapsed());
        lookups->floor.misses += hit ? 0 : 1;
    }
    for (size_t i = 0; i < picks.size(); ++i)
        hops.push_back(cache.timedHop());
    addRound(&lookups->ours, ours);
    addRound(&lookups->floor, bare);
    addRound(&lookups->hop, hops);
}

Lookups measureLookups(CacheOnThread& cache, BareLookup& floor, int count, int rounds, int perRound)
{
    std::mt19937 random(count);
    std::uniform_int_distribution<int> index(0, count - 1);
    Lookups lookups;
    for (int round = 0; round < rounds; ++round) {
        std::vector<int> picks(static_cast<size_t>(perRound));
        for (int& pick : picks)
            pick = index(random);
        lookupRound(cache, floor, picks, &lookups);
    }
    return lookups;
}

void printLookups(int count, const Lookups& lookups)
{
    const Figures ours = summaryOf(lookups.ours), floor = summaryOf(lookups.floor), hop = summaryOf(lookups.hop);
    std::printf("%6d entries: findStream round trip median %.1f us, p99 %.1f us, %d of %d over 0.5 ms "
                "(target p99 < %.0f us)\n",
                count, ours.medianUs, ours.p99Us, lookups.ours.slow, lookups.ours.count, kTargetP99Us);
    std::printf("%6d entries: floor (bare SQLite select + update) median %.1f us, p99 %.1f us, %d of %d over 0.5 ms; "
                "p99 ratio %.2f (target < %.0f)\n",
                count, floor.medianUs, floor.p99Us, lookups.floor.slow, lookups.floor.count, ours.p99Us / floor.p99Us,
                kTargetFloorRatio);
    std::printf("%6d entries: bare thread round trip (no cache work) median %.1f us, p99 %.1f us, %d of %d over 0.5 ms\n",
                count, hop.medianUs, hop.p99Us, lookups.hop.slow, lookups.hop.count);
}

// Pruning passes at the largest size: with the pretended free space 1 MiB short of the
// requirement every pass removes one MiB of entries; then, with the requirement lifted, passes
// that find nothing to remove.
bool measurePruning(CacheOnThread& cache, const QString& streams, int count, int rounds)
{
    if (!setting("mediaserver/stream_cache_debug_free_disk_space_mb", QString::number(kPretendedFreeMb))
        || !setting("mediaserver/stream_cache_required_free_disk_space_mb", QString::number(kPretendedFreeMb + 1)))
        return false;
    std::vector<double> withWork, idle;
    const int before = filesIn(streams);
    for (int round = 0; round < rounds; ++round)
        withWork.push_back(cache.timedBlocking("prune") / 1e6);
    const int removed = before - filesIn(streams);
    if (!setting("mediaserver/stream_cache_required_free_disk_space_mb", QStringLiteral("0")))
        return false;
    for (int round = 0; round < rounds; ++round)
        idle.push_back(cache.timedBlocking("prune") / 1e6);
    const int removedIdle = before - removed - filesIn(streams);
    std::printf("%6d entries: pruning pass removing %d entries (%.1f%%): median %.2f ms of %d passes\n", count,
                kFilesPerMib, 100.0 * kFilesPerMib / count, medianOf(withWork), rounds);
    std::printf("%6d entries: pruning pass with nothing to remove: median %.3f ms of %d passes\n", count, medianOf(idle),
                rounds);
    if (removed == rounds * kFilesPerMib && removedIdle == 0)
        return true;
    std::fprintf(stderr, "pruning removed %d files in %d passes with work (expected %d) and %d without\n", removed,
                 rounds, rounds * kFilesPerMib, removedIdle);
    return false;
}

struct Outcome
{
    bool ok = false;
    Figures ours;
    Figures floor;
};

// One table size: populate, init the cache on it, time lookups against the floor, and at the
// largest size time pruning too.
Outcome measureSize(const QString& root, int count, int rounds, int perRound, bool largest)
{
    const QString folder = root + QStringLiteral("/%1/").arg(count);
    Outcome outcome;
    if (!populate(folder, count) || !setting("mediaserver/stream_cache_db_file", folder + QStringLiteral("stream_cache.db")))
        return outcome;
    BareLookup floor;
    if (!floor.open(folder + QStringLiteral("floor.db"))) {
        std::fprintf(stderr, "cannot open the floor's copy of the table\n");
        return outcome;
    }
    CacheOnThread cache(kUnlimitedMb, kUnlimitedCount);
    const double initMs = cache.timedBlocking("init") / 1e6;
    std::printf("%6d entries: init() %.1f ms (target < %.0f ms at 100000)\n", count, initMs, kTargetInitMs);
    const Lookups lookups = measureLookups(cache, floor, count, rounds, perRound);
    printLookups(count, lookups);
    if (lookups.ours.misses > 0 || lookups.floor.misses > 0) {
        std::fprintf(stderr, "%d lookups of the cache and %d of the floor missed existing keys\n", lookups.ours.misses,
                     lookups.floor.misses);
        return outcome;
    }
    outcome.ours = summaryOf(lookups.ours);
    outcome.floor = summaryOf(lookups.floor);
    outcome.ok = !largest || measurePruning(cache, folder + QStringLiteral("streams"), count, rounds);
    return outcome;
}

bool configure()
{
    return setting("mediaserver/stream_cache_required_free_disk_space_mb", QStringLiteral("0"))
        && setting("mediaserver/stream_cache_debug_free_disk_space_mb", QStringLiteral("-1"))
        && setting("mediaserver/stream_cache_prune_timer_ms", QStringLiteral("0"));
}

int run(int rounds, int perRound)
{
    QTemporaryDir root;
    if (!root.isValid() || !configure())
        return 1;
    Outcome last;
    for (int count : kSizes) {
        last = measureSize(root.path(), count, rounds, perRound, count == kSizes[std::size(kSizes) - 1]);
        if (!last.ok)
            return 1;
    }
    std::printf("stream-cache: %.1f us vs %.1f us (ratio %.2f)\n", last.ours.p99Us, last.floor.p99Us,
                last.ours.p99Us / last.floor.p99Us);
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int rounds = argc > 1 ? std::atoi(argv[1]) : 5;
    const int perRound = argc > 2 ? std::atoi(argv[2]) : 1000;
    if (rounds < 1 || perRound < 1) {
        std::fprintf(stderr, "usage: bench-stream-cache [ROUNDS [LOOKUPS-PER-ROUND]]\n");
        return 2;
    }
    const int status = run(rounds, perRound);
    Finalizer::instance()->finalize();
    Logger::flush();
    return status;
}
