// bench-e2e-client: the measuring end of bench/e2e. Times "first non-silent audio sample at the
// sink" for a running cabin-media-server (asked over the bus) and for a bare gst-launch-1.0
// playbin3 (spawned), with one method for both: the audio sink of each is the same bin,
// "audioconvert ! S16LE ! udpsink" to a port on 127.0.0.1, rendering on the pipeline clock
// (udpsink syncs by default, like a sound card's sink), and this program receives the
// datagrams on a thread of its own and notes the arrival of the first one holding a sample
// louder than kLoud. The figures are milliseconds from the request (ours: just before
// LoadMedia; the floor: just before spawning gst-launch-1.0) to that arrival.
//
//   bench-e2e-client sink PORT                 the audio sink bin description for PORT
//   bench-e2e-client port                      a free UDP port on 127.0.0.1
//   bench-e2e-client ours BUS PORT JSON [LOG TEXT]
//       load JSON, play, print "first_ms"; with LOG TEXT keep playing until the file LOG holds
//       TEXT (e.g. the cache's "stored KEY"); then stop and wait for NoMedia.
//   bench-e2e-client floor PORT URL            spawn playbin3 on URL, print "first_ms", kill it
//   bench-e2e-client ours-through BUS PORT PID JSON
//       play JSON to its end; print "cpu_s heard_s hwm_kib" of the server process PID (CPU
//       from /proc/PID/stat, VmHWM reset through /proc/PID/clear_refs before loading)
//   bench-e2e-client floor-through PORT URL    the same for playbin3: "cpu_s heard_s maxrss_kib"
//   bench-e2e-client cycles BUS JSON COUNT     COUNT times load, play, wait for Playing, stop,
//                                              wait for NoMedia; print "ms_per_cycle"
//
// Before each measurement the sink must have been quiet for kQuietMs (a previous item still
// sounding would otherwise pass for the first audio); a measurement that does not hear audio
// within kGiveUpMs fails with status 1 and one line on stderr.
//
// Thread: main thread drives the requests; SoundListener's thread only receives datagrams.

#include "UI/media_server/MediaServerState.h"
#include "media_server/gen/MediaServer2.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/Finalizer.h"
#include "platform/core/ProcessExit.h"
#include "platform/service/ServiceCallContext.h"
#include "platform/service/ServiceManager.h"
#include "tools/mediactl/DataValuesClient.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QFile>
#include <QTimer>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <thread>

extern char** environ;

namespace {

// A sample above this (about -30 dBFS) is sound: the test tone peaks at half of full scale,
// the decoder's start-up samples and dither stay far below it.
const int kLoud = 1000;
// The sink counts as quiet once no datagram came for this long.
const int kQuietMs = 300;
// A start or a state change that takes longer than this is a failure, not a figure.
const int kGiveUpMs = 30000;
// The sink's format: the test tone is mono at 44100 Hz, converted to 16-bit samples.
const int kBytesPerSecond = 44100 * 2;

qint64 nowNs()
{
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int fail(const char* what)
{
    std::fprintf(stderr, "bench-e2e-client: %s\n", what);
    return 1;
}

QString sinkDescription(const QString& port)
{
    return QStringLiteral("audioconvert ! audio/x-raw,format=S16LE ! udpsink host=127.0.0.1 port=%1").arg(port);
}

// Receives the sink's datagrams on 127.0.0.1:PORT and notes when they come.
class SoundListener
{
public:
    ~SoundListener()
    {
        mRunning = false;
        if (mThread.joinable())
            mThread.join();
        if (mFd >= 0)
            ::close(mFd);
    }

    bool listen(int port)
    {
        mFd = ::socket(AF_INET, SOCK_DGRAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(quint16(port));
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        if (mFd < 0 || ::bind(mFd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0)
            return false;
        mRunning = true;
        mThread = std::thread([this] { receive(); });
        return true;
    }

    bool waitQuiet() const
    {
        const qint64 start = nowNs();
        while (nowNs() - mLastNs.load() < qint64(kQuietMs) * 1000000) {
            if (nowNs() - start > qint64(kGiveUpMs) * 1000000)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        }
        return true;
    }

    // From now on the first loud sample and the bytes heard are counted.
    void arm()
    {
        mFirstNs = -1;
        mBytes = 0;
        mArmedNs = nowNs();
    }

    // Milliseconds from arm() to the first loud sample, -1 when none came in time.
    qint64 waitFirstSound() const
    {
        while (mFirstNs.load() < 0 && nowNs() - mArmedNs.load() < qint64(kGiveUpMs) * 1000000)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        return mFirstNs.load() < 0 ? -1 : (mFirstNs.load() - mArmedNs.load()) / 1000000;
    }

    double secondsHeard() const { return double(mBytes.load()) / kBytesPerSecond; }

private:
    void receive()
    {
        static char datagram[65536];
        pollfd ready{mFd, POLLIN, 0};
        while (mRunning) {
            if (::poll(&ready, 1, 50) <= 0)
                continue;
            const ssize_t size = ::recv(mFd, datagram, sizeof datagram, 0);
            const qint64 arrived = nowNs();
            if (size <= 0)
                continue;
            mLastNs = arrived;
            if (mArmedNs.load() < 0)
                continue;
            mBytes += size;
            if (mFirstNs.load() < 0 && holdsSound(datagram, size))
                mFirstNs = arrived;
        }
    }

    static bool holdsSound(const char* bytes, ssize_t size)
    {
        for (ssize_t i = 0; i + 1 < size; i += 2) {
            qint16 sample;
            std::memcpy(&sample, bytes + i, 2);
            if (std::abs(int(sample)) > kLoud)
                return true;
        }
        return false;
    }

    int mFd = -1;
    std::thread mThread;
    std::atomic<bool> mRunning{false};
    std::atomic<qint64> mLastNs{0};
    std::atomic<qint64> mArmedNs{-1};
    std::atomic<qint64> mFirstNs{-1};
    std::atomic<qint64> mBytes{0};
};

// The server over the bus: requests through the generated proxy, the state from /DataValues.
class Server
{
public:
    bool connect(const QString& bus)
    {
        QString error;
        ConfigStore::instance()->set(QStringLiteral("service/bus"), bus, nullptr);
        if (!ServiceManager::instance()->connectBus(&error))
            return false;
        mProxy = new MediaServer2(ClientInstance, QCoreApplication::instance());
        mValues = new DataValuesClient(ServiceManager::instance()->connection(), QCoreApplication::instance());
        QObject::connect(mValues, &DataValuesClient::changed, mValues, [this](const QString& name, bool valid, const QVariant& value) {
            if (name == QLatin1String("MEDIA2_serverState"))
                noteState(valid, value);
        });
        bool valid = false;
        QVariant value;
        if (!mValues->subscribe() || !mValues->get(QStringLiteral("MEDIA2_serverState"), &valid, &value))
            return false;
        noteState(valid, value);
        return true;
    }

    // The server takes play once the item is Loaded (a play while Loading is refused), so a
    // client waits for that state in between, as this does.
    bool loadAndPlay(const QString& json)
    {
        ServiceCallContext context(ServiceCallContext::Client);
        if (!mProxy->loadMedia(json, QStringLiteral(R"({"url":"","cachekey":""})"), &context)
            || !waitState(MediaV2::Loaded, kGiveUpMs))
            return false;
        ServiceCallContext playContext(ServiceCallContext::Client);
        return mProxy->play(0, &playContext);
    }
    bool stop()
    {
        ServiceCallContext context(ServiceCallContext::Client);
        return mProxy->stop(&context);
    }

    // Runs the event loop until the server publishes the state; false after timeoutMs.
    bool waitState(MediaV2::MediaServerState wanted, int timeoutMs)
    {
        if (mState == wanted)
            return true;
        QEventLoop loop;
        QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
        const auto check = QObject::connect(mValues, &DataValuesClient::changed, &loop, [&] {
            if (mState == wanted)
                loop.quit();
        });
        loop.exec();
        QObject::disconnect(check);
        if (mState != wanted)
            std::fprintf(stderr, "bench-e2e-client: state %d after %d ms, waited for %d\n", mState, timeoutMs, int(wanted));
        return mState == wanted;
    }

    // Lets the event loop run (state changes arrive) while waiting for a condition.
    static bool waitFor(const std::function<bool()>& done, int timeoutMs)
    {
        const qint64 start = nowNs();
        while (!done()) {
            if (nowNs() - start > qint64(timeoutMs) * 1000000)
                return false;
            QEventLoop loop;
            QTimer::singleShot(20, &loop, &QEventLoop::quit);
            loop.exec();
        }
        return true;
    }

private:
    void noteState(bool valid, const QVariant& value) { mState = valid ? value.toList().value(0).toInt() : -1; }

    MediaServer2* mProxy = nullptr;
    DataValuesClient* mValues = nullptr;
    int mState = -1;
};

// /proc/PID/stat's utime + stime in seconds.
double cpuSecondsOf(const QString& pid)
{
    QFile file(QStringLiteral("/proc/%1/stat").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    const QByteArray stat = file.readAll();
    const QList<QByteArray> fields = stat.mid(stat.lastIndexOf(')') + 2).split(' ');
    // After the command's closing parenthesis, field 3 (state) is index 0: utime is 14, stime 15.
    return double(fields.value(11).toLongLong() + fields.value(12).toLongLong()) / double(sysconf(_SC_CLK_TCK));
}

qint64 statusKib(const QString& pid, const char* key)
{
    QFile file(QStringLiteral("/proc/%1/status").arg(pid));
    if (!file.open(QIODevice::ReadOnly))
        return -1;
    for (const QByteArray& line : file.readAll().split('\n'))
        if (line.startsWith(key))
            return line.mid(int(std::strlen(key))).trimmed().split(' ').value(0).toLongLong();
    return -1;
}

pid_t spawnPlaybin(const QString& url, const QString& port)
{
    const QByteArray uri = "uri=" + url.toUtf8();
    const QByteArray sink = "audio-sink=" + sinkDescription(port).toUtf8();
    char* const argv[] = {const_cast<char*>("gst-launch-1.0"), const_cast<char*>("-q"), const_cast<char*>("playbin3"),
                          const_cast<char*>(uri.constData()), const_cast<char*>(sink.constData()), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
    pid_t pid = -1;
    if (posix_spawnp(&pid, "gst-launch-1.0", &actions, nullptr, argv, environ) != 0)
        pid = -1;
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

bool fileHolds(const QString& path, const QByteArray& text)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) && file.readAll().contains(text);
}

// Listens on PORT and waits for the sink to be quiet: where every measurement starts.
bool quietSink(SoundListener* sound, const QString& port)
{
    if (!sound->listen(port.toInt()))
        return fail("cannot listen on the sink's port") == 0;
    if (!sound->waitQuiet())
        return fail("the sink is not quiet before the request") == 0;
    return true;
}

// Spawns playbin3 on URL (args: PORT URL) once the sink is quiet, counting from the spawn;
// -1 after saying why.
pid_t startFloor(SoundListener* sound, const QStringList& args)
{
    if (!quietSink(sound, args.at(0)))
        return -1;
    sound->arm();
    const pid_t child = spawnPlaybin(args.at(1), args.at(0));
    if (child < 0)
        fail("cannot spawn gst-launch-1.0");
    return child;
}

int oursFirst(const QStringList& args)
{
    SoundListener sound;
    Server server;
    if (!server.connect(args.at(0)))
        return fail("cannot reach the server");
    if (!quietSink(&sound, args.at(1)))
        return 1;
    sound.arm();
    if (!server.loadAndPlay(args.at(2)))
        return fail("load or play refused");
    const qint64 firstMs = sound.waitFirstSound();
    if (firstMs < 0)
        return fail("no audio at the sink");
    if (args.size() > 4 && !Server::waitFor([&] { return fileHolds(args.at(3), args.at(4).toUtf8()); }, kGiveUpMs))
        return fail("the log never showed the awaited text");
    if (!server.stop() || !server.waitState(MediaV2::NoMedia, kGiveUpMs))
        return fail("stop did not end in NoMedia");
    std::printf("%lld\n", firstMs);
    return 0;
}

int floorFirst(const QStringList& args)
{
    SoundListener sound;
    const pid_t child = startFloor(&sound, args);
    if (child < 0)
        return 1;
    const qint64 firstMs = sound.waitFirstSound();
    ::kill(child, SIGTERM);
    ::waitpid(child, nullptr, 0);
    if (firstMs < 0)
        return fail("no audio from playbin3");
    std::printf("%lld\n", firstMs);
    return 0;
}

int oursThrough(const QStringList& args)
{
    SoundListener sound;
    Server server;
    const QString pid = args.at(2);
    if (!server.connect(args.at(0)))
        return fail("cannot reach the server");
    if (!quietSink(&sound, args.at(1)))
        return 1;
    QFile clearRefs(QStringLiteral("/proc/%1/clear_refs").arg(pid));
    if (!clearRefs.open(QIODevice::WriteOnly) || clearRefs.write("5") != 1)
        return fail("cannot reset the server's peak RSS");
    clearRefs.close();
    const double cpuBefore = cpuSecondsOf(pid);
    sound.arm();
    if (!server.loadAndPlay(args.at(3)))
        return fail("load or play refused");
    if (!server.waitState(MediaV2::PlaybackComplete, 10 * 60 * 1000))
        return fail("playback did not complete");
    const double cpu = cpuSecondsOf(pid) - cpuBefore;
    const qint64 hwm = statusKib(pid, "VmHWM:");
    if (!server.stop() || !server.waitState(MediaV2::NoMedia, kGiveUpMs))
        return fail("stop did not end in NoMedia");
    std::printf("%.3f %.1f %lld\n", cpu, sound.secondsHeard(), hwm);
    return 0;
}

int floorThrough(const QStringList& args)
{
    SoundListener sound;
    const pid_t child = startFloor(&sound, args);
    if (child < 0)
        return 1;
    int status = 0;
    rusage usage{};
    ::wait4(child, &status, 0, &usage);
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0)
        return fail("playbin3 did not end normally");
    const double cpu = double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) + double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
    std::printf("%.3f %.1f %ld\n", cpu, sound.secondsHeard(), usage.ru_maxrss);
    return 0;
}

int cycles(const QStringList& args)
{
    Server server;
    if (!server.connect(args.at(0)))
        return fail("cannot reach the server");
    const int count = args.at(2).toInt();
    const qint64 start = nowNs();
    for (int i = 0; i < count; ++i) {
        if (!server.loadAndPlay(args.at(1)) || !server.waitState(MediaV2::Playing, kGiveUpMs))
            return fail("a cycle did not reach Playing");
        if (!server.stop() || !server.waitState(MediaV2::NoMedia, kGiveUpMs))
            return fail("a cycle did not end in NoMedia");
    }
    std::printf("%.1f\n", double(nowNs() - start) / 1e6 / std::max(1, count));
    return 0;
}

int freePort()
{
    const int fd = ::socket(AF_INET, SOCK_DGRAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (fd < 0 || ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0
        || ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0)
        return fail("no free port");
    std::printf("%d\n", ntohs(address.sin_port));
    ::close(fd);
    return 0;
}

int run(const QStringList& args)
{
    struct Mode {
        const char* name;
        int arguments;   // the fewest
        int (*handler)(const QStringList&);
    };
    static const Mode modes[] = {
        {"ours", 3, &oursFirst}, {"floor", 2, &floorFirst}, {"ours-through", 4, &oursThrough},
        {"floor-through", 2, &floorThrough}, {"cycles", 3, &cycles},
    };
    if (args.size() == 1 && args.at(0) == QLatin1String("port"))
        return freePort();
    if (args.size() == 2 && args.at(0) == QLatin1String("sink")) {
        std::printf("%s\n", sinkDescription(args.at(1)).toUtf8().constData());
        return 0;
    }
    for (const Mode& mode : modes)
        if (!args.isEmpty() && args.at(0) == QLatin1String(mode.name) && args.size() > mode.arguments)
            return mode.handler(args.mid(1));
    std::fprintf(stderr, "usage: see the comment at the top of bench/e2e_client.cpp\n");
    return 2;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    const int status = run(app.arguments().mid(1));
    Finalizer::instance()->finalize();
    exitAfterShutdown(status);
}
