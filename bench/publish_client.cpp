// bench-publish-client: the subscribing end of bench/publish. It listens to the Message signal
// of /MediaServer2 on a connection and a thread of its own, so that the requests it sends from
// the main thread (which block until the server answers) never delay the moment a message is
// noted. Each MediaServer2Info message is decoded as a subscriber would and noted with its
// CLOCK_REALTIME arrival and the server state it carries; the state it waits for comes from
// these messages too.
//
//   bench-publish-client through BUS JSON
//       load JSON, play it to PlaybackComplete, stop and wait for NoMedia.
//   bench-publish-client toggle BUS JSON CHANGES PERIOD_MS LOG
//       load JSON and play, then CHANGES times pause or play (alternating, one every PERIOD_MS),
//       stop; then print one line per Paused or Playing change in the server's log file LOG:
//       the milliseconds from that line's timestamp to the arrival of the first Info message
//       that carries the new state, and the state's name.
//   bench-publish-client hop BUS COUNT
//       COUNT round trips to the bus daemon itself (GetId); print the median in milliseconds.
//
// A state change that does not arrive within kGiveUpMs fails with status 1 and one line on
// stderr.
//
// Thread: main thread sends the requests; MessageListener lives on its own thread and guards
// what it notes with mLock.

#include "UI/media_server/MediaServerState.h"
#include "media_server/gen/MediaServer2.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/Finalizer.h"
#include "platform/core/ProcessExit.h"
#include "platform/service/ServiceCallContext.h"
#include "platform/service/ServiceManager.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusMessage>
#include <QDataStream>
#include <QDateTime>
#include <QFile>
#include <QMutex>
#include <QRegularExpression>
#include <QThread>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <ctime>
#include <thread>
#include <vector>

namespace {

// A state change that takes longer than this is a failure, not a figure.
const int kGiveUpMs = 30000;
// Playing the whole item takes its 60 s and whatever the download adds.
const int kPlayThroughMs = 10 * 60 * 1000;

qint64 realtimeUs()
{
    timespec now{};
    ::clock_gettime(CLOCK_REALTIME, &now);
    return qint64(now.tv_sec) * 1000000 + now.tv_nsec / 1000;
}

int fail(const char* what)
{
    std::fprintf(stderr, "bench-publish-client: %s\n", what);
    return 1;
}

// The server state an Info body carries (its second value, the pair [state, error]); -1 when
// the body does not read as one.
int stateOfInfo(const QByteArray& body)
{
    QDataStream in(body);
    in.setVersion(QDataStream::Qt_4_8);
    qint32 zero = -1, count = 0;
    QVariant messageId, publisherId, title, state;
    in >> zero >> count >> messageId >> publisherId >> title >> state;
    if (in.status() != QDataStream::Ok || zero != 0 || count < 2 || state.isNull())
        return -1;
    return state.toList().value(0, -1).toInt();
}

// Notes every Info message: when it came and which state it carried.
class MessageListener : public QObject
{
    Q_OBJECT
public:
    struct Arrival
    {
        qint64 us;
        int state;
    };

    // Connects to BUS from the listener's own thread and subscribes; false when either fails.
    bool start(const QString& bus)
    {
        moveToThread(&mThread);
        mThread.start();
        bool subscribed = false;
        QMetaObject::invokeMethod(this, [&] { subscribed = subscribe(bus); }, Qt::BlockingQueuedConnection);
        return subscribed;
    }
    ~MessageListener() override
    {
        mThread.quit();
        mThread.wait();
    }

    int state() const { return mState; }
    std::vector<Arrival> arrivals() const
    {
        QMutexLocker locker(&mLock);
        return mArrivals;
    }

    // Waits for the server to publish the state; false after timeoutMs.
    bool waitState(MediaV2::MediaServerState wanted, int timeoutMs) const
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
        while (mState != wanted && std::chrono::steady_clock::now() < end)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        if (mState != wanted)
            std::fprintf(stderr, "bench-publish-client: state %d after %d ms, waited for %d\n", mState.load(), timeoutMs,
                         int(wanted));
        return mState == wanted;
    }

private slots:
    void onMessage(const QString& name, const QByteArray& body)
    {
        const qint64 arrived = realtimeUs();
        if (name != QLatin1String("MediaServer2Info"))
            return;
        const int state = stateOfInfo(body);
        QMutexLocker locker(&mLock);
        mArrivals.push_back({arrived, state});
        mState = state;
    }

private:
    bool subscribe(const QString& bus)
    {
        QDBusConnection connection = QDBusConnection::connectToBus(bus, QStringLiteral("publish-listener"));
        return connection.isConnected()
            && connection.connect(QString(), QStringLiteral("/MediaServer2"), QStringLiteral("com.kelvramotors.DataPublisher"),
                                  QStringLiteral("Message"), this, SLOT(onMessage(QString, QByteArray)));
    }

    QThread mThread;
    mutable QMutex mLock;
    std::vector<Arrival> mArrivals;   // guarded by mLock; appended on the listener's thread
    std::atomic<int> mState{-1};
};

// The server's requests, through the generated proxy on the main thread, and its messages
// through the listener.
class Server
{
public:
    bool connect(const QString& bus)
    {
        QString error;
        if (!mListener.start(bus))
            return false;
        ConfigStore::instance()->set(QStringLiteral("service/bus"), bus, nullptr);
        if (!ServiceManager::instance()->connectBus(&error))
            return false;
        mProxy = new MediaServer2(ClientInstance, QCoreApplication::instance());
        return true;
    }

    // The server takes play once the item is Loaded, so the load is awaited first.
    bool loadAndPlay(const QString& json)
    {
        ServiceCallContext context(ServiceCallContext::Client);
        return mProxy->loadMedia(json, QStringLiteral(R"({"url":"","cachekey":""})"), &context)
            && mListener.waitState(MediaV2::Loaded, kGiveUpMs) && play();
    }
    bool play()
    {
        ServiceCallContext context(ServiceCallContext::Client);
        return mProxy->play(0, &context);
    }
    bool pause()
    {
        ServiceCallContext context(ServiceCallContext::Client);
        return mProxy->pause(&context);
    }
    bool stopToNoMedia()
    {
        ServiceCallContext context(ServiceCallContext::Client);
        return mProxy->stop(&context) && mListener.waitState(MediaV2::NoMedia, kGiveUpMs);
    }

    const MessageListener& listener() const { return mListener; }

private:
    MessageListener mListener;
    MediaServer2* mProxy = nullptr;
};

// One serverState line of the server's log: its timestamp and the state it names.
struct LoggedChange
{
    qint64 ms;
    QString state;
};

std::vector<LoggedChange> loggedStateChanges(const QString& path)
{
    static const QRegularExpression line(
        QStringLiteral(R"(^(\S+Z) INFO \[[^\]]*\] logChange\(\): MEDIA2_serverState changed: (\w+),)"),
        QRegularExpression::MultilineOption);
    std::vector<LoggedChange> changes;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return changes;
    const QString text = QString::fromUtf8(file.readAll());
    for (auto match = line.globalMatch(text); match.hasNext();) {
        const QRegularExpressionMatch found = match.next();
        const QDateTime at = QDateTime::fromString(found.captured(1), Qt::ISODateWithMs);
        changes.push_back({at.toMSecsSinceEpoch(), found.captured(2)});
    }
    return changes;
}

// The first Info message that arrived after `afterMs` and carries `state` where the message
// before it did not: a periodic Info still carrying the state from before the previous change
// is not taken for the announcement of this one.
const MessageListener::Arrival* firstAnnouncing(const std::vector<MessageListener::Arrival>& arrivals, int state,
                                                qint64 afterMs)
{
    for (size_t i = 0; i < arrivals.size(); ++i) {
        const bool announces = arrivals[i].state == state && (i == 0 || arrivals[i - 1].state != state);
        if (announces && arrivals[i].us >= afterMs * 1000)
            return &arrivals[i];
    }
    return nullptr;
}

// Prints one delay per Paused or Playing line of the log; false when one never arrived.
bool printDelays(const std::vector<LoggedChange>& changes, const std::vector<MessageListener::Arrival>& arrivals)
{
    qint64 previousMs = 0;
    for (const LoggedChange& change : changes) {
        const int state = change.state == QLatin1String("Paused")    ? MediaV2::Paused
                        : change.state == QLatin1String("Playing") ? MediaV2::Playing
                                                                   : -1;
        if (state >= 0) {
            const MessageListener::Arrival* arrival = firstAnnouncing(arrivals, state, previousMs);
            if (!arrival)
                return fail("a logged change never arrived in an Info message") == 0;
            std::printf("%.3f %s\n", double(arrival->us - change.ms * 1000) / 1000.0, qPrintable(change.state));
        }
        previousMs = change.ms;
    }
    return true;
}

int playThrough(const QStringList& args)
{
    Server server;
    if (!server.connect(args.at(0)))
        return fail("cannot reach the server");
    if (!server.loadAndPlay(args.at(1)))
        return fail("load or play refused");
    if (!server.listener().waitState(MediaV2::PlaybackComplete, kPlayThroughMs))
        return fail("playback did not complete");
    return server.stopToNoMedia() ? 0 : fail("stop did not end in NoMedia");
}

// Alternates pause and play, one every periodMs, each awaited in the published state.
bool toggle(Server* server, int changes, int periodMs)
{
    auto next = std::chrono::steady_clock::now();
    for (int i = 0; i < changes; ++i) {
        next += std::chrono::milliseconds(periodMs);
        std::this_thread::sleep_until(next);
        const bool pausing = i % 2 == 0;
        if (!(pausing ? server->pause() : server->play())
            || !server->listener().waitState(pausing ? MediaV2::Paused : MediaV2::Playing, kGiveUpMs))
            return false;
    }
    return true;
}

int toggleDelays(const QStringList& args)
{
    Server server;
    if (!server.connect(args.at(0)))
        return fail("cannot reach the server");
    if (!server.loadAndPlay(args.at(1)) || !server.listener().waitState(MediaV2::Playing, kGiveUpMs))
        return fail("load or play refused");
    if (!toggle(&server, args.at(2).toInt(), args.at(3).toInt()))
        return fail("a pause or play was refused or never published");
    if (!server.stopToNoMedia())
        return fail("stop did not end in NoMedia");
    return printDelays(loggedStateChanges(args.at(4)), server.listener().arrivals()) ? 0 : 1;
}

int busHop(const QStringList& args)
{
    const QDBusConnection connection = QDBusConnection::connectToBus(args.at(0), QStringLiteral("publish-hop"));
    if (!connection.isConnected())
        return fail("cannot reach the bus");
    const QDBusMessage getId = QDBusMessage::createMethodCall(
        QStringLiteral("org.freedesktop.DBus"), QStringLiteral("/org/freedesktop/DBus"), QStringLiteral("org.freedesktop.DBus"),
        QStringLiteral("GetId"));
    std::vector<qint64> trips;
    for (int i = 0; i < args.at(1).toInt(); ++i) {
        const qint64 start = realtimeUs();
        if (connection.call(getId).type() != QDBusMessage::ReplyMessage)
            return fail("the bus did not answer GetId");
        trips.push_back(realtimeUs() - start);
    }
    if (trips.empty())
        return fail("no round trips asked for");
    std::nth_element(trips.begin(), trips.begin() + long(trips.size() / 2), trips.end());
    std::printf("%.3f\n", double(trips[trips.size() / 2]) / 1000.0);
    return 0;
}

int run(const QStringList& args)
{
    struct Mode {
        const char* name;
        int arguments;
        int (*handler)(const QStringList&);
    };
    static const Mode modes[] = {{"through", 2, &playThrough}, {"toggle", 5, &toggleDelays}, {"hop", 2, &busHop}};
    for (const Mode& mode : modes)
        if (!args.isEmpty() && args.at(0) == QLatin1String(mode.name) && args.size() == mode.arguments + 1)
            return mode.handler(args.mid(1));
    std::fprintf(stderr, "usage: see the comment at the top of bench/publish_client.cpp\n");
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

#include "publish_client.moc"
