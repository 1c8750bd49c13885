// The real cabin-media-server flooded from several connections at once with calls to every
// method of every object it exports, read from its own introspection so that a method added
// later is flooded too. Arguments are drawn at random: the right types, wrong types, too few,
// too many, the named-argument map, nested variants and maps, huge strings, odd numbers. Every
// call must end in a reply or an error of the server's (never the caller's time-out), a status
// call must keep being answered during the flood, the process must live on, and its resident
// memory must come back to where it was before the flood.
//
// The generator is seeded and the seed printed: CABIN_FLOOD_SEED=<seed> sends the same calls
// from each connection again (their interleaving is the scheduler's).

#include "tests/support/ServerProcess.h"

#include <QDeadlineTimer>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QXmlStreamReader>
#include <QtDBus>
#include <QtTest>

#include <algorithm>
#include <cmath>
#include <limits>
#include <memory>

namespace {

const QString kService = QStringLiteral("com.kelvramotors.MediaServer2");
// A round of the same mix first, so that what the server allocates once (caches, pools, the
// bus's buffers at their high-water mark) is in the memory measured before the flood.
const int kWarmUpCalls = 2000;
const int kCalls = 10000;
// Several connections: the server's dispatcher must keep their calls and answers apart.
const int kClients = 4;
// Calls each connection keeps waiting at once: enough to keep the server's queue full.
const int kInFlight = 16;
// Generous: nothing the server does should come near it, so a call that reaches it was lost.
// The server itself refuses a request its service leaves unanswered after twice the method's
// own time-out (seconds).
const int kCallTimeoutMs = 60000;
// A round of the flood: every call has ended by then, answered or not.
const int kFloodMs = kCallTimeoutMs + 30000;
// Resident memory after the flood may exceed the memory before by at most this much. The
// allocator's fragmentation after ten thousand calls of every size moves it by a few
// megabytes from run to run; the flood carries hundreds of megabytes, so a leak of the
// messages, or of anything near their size, still goes far past it.
const qint64 kRssSlackKiB = 16 * 1024;
// Refused calls of a megabyte each, sent one after the other: kept, they would add this many
// megabytes to the server, against the slack above.
const int kRefusedMegabyteCalls = 200;
// Errors that mean the call never reached an answer: the caller's time-out or a vanished server.
const QStringList kLost{QStringLiteral("org.freedesktop.DBus.Error.NoReply"), QStringLiteral("org.freedesktop.DBus.Error.Timeout"),
                        QStringLiteral("org.freedesktop.DBus.Error.TimedOut"), QStringLiteral("org.freedesktop.DBus.Error.Disconnected"),
                        QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown"),
                        QStringLiteral("org.freedesktop.DBus.Error.NameHasNoOwner")};

// One method as introspection describes it: where, and its input argument types and names.
struct Method
{
    QString path;
    QString interface;
    QString name;
    QStringList types;
    QStringList names;
    QString key() const { return path + QLatin1Char(' ') + interface + QLatin1Char('.') + name; }
};

// The outcome of a flood, filled in by every connection.
struct Tally
{
    int replies = 0;
    QMap<QString, int> errors;   // by error name
    QMap<QString, int> perMethod;   // calls finished, by Method::key()
    QStringList lost;   // the first lost calls, described
    int finished() const
    {
        int sum = replies;
        for (int count : errors)
            sum += count;
        return sum;
    }
    int lostCount() const
    {
        int sum = 0;
        for (const QString& name : kLost)
            sum += errors.value(name);
        return sum;
    }
};

// Every method below `path` (recursively through the child nodes) and every name introspection
// mentions (interfaces, properties), for arguments that hit something real now and then.
void discover(const QDBusConnection& bus, const QString& service, const QString& path, QList<Method>* methods, QStringList* words)
{
    const QDBusMessage reply =
        QDBusConnection(bus).call(QDBusMessage::createMethodCall(service, path, "org.freedesktop.DBus.Introspectable", "Introspect"));
    QXmlStreamReader xml(reply.arguments().value(0).toString());
    QString interface;
    QStringList children;
    bool inMethod = false;
    int depth = 0;
    while (!xml.atEnd()) {
        const QXmlStreamReader::TokenType token = xml.readNext();
        if (token == QXmlStreamReader::EndElement) {
            --depth;
            inMethod = inMethod && xml.name() != QLatin1String("method");
            continue;
        }
        if (token != QXmlStreamReader::StartElement)
            continue;
        ++depth;
        const QString name = xml.attributes().value("name").toString();
        if (xml.name() == QLatin1String("node") && depth == 2)
            children << name;
        else if (xml.name() == QLatin1String("interface"))
            words->append(interface = name);
        else if (xml.name() == QLatin1String("property"))
            words->append(name);
        else if (xml.name() == QLatin1String("method")) {
            methods->append({path, interface, name, {}, {}});
            inMethod = true;
        } else if (xml.name() == QLatin1String("arg") && inMethod && xml.attributes().value("direction") != QLatin1String("out")) {
            methods->last().types << xml.attributes().value("type").toString();
            methods->last().names << name;
        }
    }
    for (const QString& child : children)
        discover(bus, service, (path == QLatin1String("/") ? path : path + QLatin1Char('/')) + child, methods, words);
}

// The calls one connection sends, drawn from a seeded generator.
class CallMix
{
public:
    CallMix(const QList<Method>& methods, const QStringList& words, quint64 seed)
        : mMethods(methods)
        , mWords(words)
        , mRandom(seed)
    {
    }

    // The argument types the mix can build with the right type.
    static bool builds(const QString& type)
    {
        static const QStringList kBuilt{"b", "y", "n", "q", "i", "u", "x", "t", "d", "s", "o", "g", "v", "as", "ay", "av", "a{sv}"};
        return kBuilt.contains(type);
    }

    QDBusMessage next(const QString& service, const Method** method, QString* description)
    {
        *method = &mMethods.at(mRandom.bounded(int(mMethods.size())));
        QDBusMessage message = QDBusMessage::createMethodCall(service, (*method)->path, (*method)->interface, (*method)->name);
        message.setArguments(arguments(**method));
        // The seed sends the same calls again; the argument types are enough to tell which one.
        QStringList types;
        for (const QVariant& argument : message.arguments())
            types << QString::fromLatin1(argument.typeName());
        *description = (*method)->key() + QLatin1Char('(') + types.join(QStringLiteral(", ")) + QLatin1Char(')');
        return message;
    }

private:
    QVariantList arguments(const Method& method)
    {
        QVariantList args;
        const int form = mRandom.bounded(100);
        if (form < 35) {   // right types
            for (const QString& type : method.types)
                args << value(type, 0);
        } else if (form < 45) {   // the named-argument map, the declared names and some others
            QVariantMap named = map(1);
            for (int i = 0; i < method.types.size(); ++i)
                named.insert(method.names.at(i), mRandom.bounded(4) ? value(method.types.at(i), 1) : any(1));
            args << named;
        } else if (form < 60) {   // wrong types, most likely
            for (int i = 0; i < method.types.size(); ++i)
                args << any(0);
        } else if (form < 70) {   // too few
            for (int i = 0; i + 1 < method.types.size(); ++i)
                args << value(method.types.at(i), 0);
        } else if (form < 80) {   // too many
            for (const QString& type : method.types)
                args << value(type, 0);
            for (int extra = 1 + mRandom.bounded(4); extra > 0; --extra)
                args << any(0);
        } else if (form < 85) {   // none at all
        } else {   // anything
            for (int count = mRandom.bounded(7); count > 0; --count)
                args << any(0);
        }
        return args;
    }

    QVariant value(const QString& type, int depth)
    {
        if (type == QLatin1String("b")) return bool(mRandom.bounded(2));
        if (type == QLatin1String("y")) return QVariant::fromValue(uchar(mRandom.bounded(256)));
        if (type == QLatin1String("n")) return QVariant::fromValue(short(integer()));
        if (type == QLatin1String("q")) return QVariant::fromValue(ushort(integer()));
        if (type == QLatin1String("i")) return int(integer());
        if (type == QLatin1String("u")) return uint(integer());
        if (type == QLatin1String("x")) return qlonglong(integer());
        if (type == QLatin1String("t")) return qulonglong(integer());
        if (type == QLatin1String("d")) return real();
        if (type == QLatin1String("s")) return text();
        if (type == QLatin1String("o")) return QVariant::fromValue(objectPath());
        if (type == QLatin1String("g")) return QVariant::fromValue(QDBusSignature(pick({"s", "a{sv}", "v", "(ii)", "aav"})));
        if (type == QLatin1String("v")) return QVariant::fromValue(QDBusVariant(any(depth + 1)));
        if (type == QLatin1String("as")) return strings();
        if (type == QLatin1String("ay")) return bytes();
        if (type == QLatin1String("av")) return list(depth + 1);
        return map(depth + 1);   // a{sv}
    }

    // A value of any type; containers nest three deep at most.
    QVariant any(int depth)
    {
        static const QStringList kTypes{"b", "y", "n", "q", "i", "u", "x", "t", "d", "s", "o", "g", "as", "ay", "v", "av", "a{sv}"};
        const int choices = depth < 3 ? int(kTypes.size()) : int(kTypes.size()) - 3;
        return value(kTypes.at(mRandom.bounded(choices)), depth);
    }

    // The edges of every integer width, and ordinary positions.
    qint64 integer()
    {
        static const QList<qint64> kEdges{0, 1, -1, 255, 32767, -32768, 65535, std::numeric_limits<int>::max(), std::numeric_limits<int>::min(),
                                          std::numeric_limits<uint>::max(), std::numeric_limits<qint64>::max(),
                                          std::numeric_limits<qint64>::min()};
        return mRandom.bounded(2) ? kEdges.at(mRandom.bounded(int(kEdges.size()))) : qint64(mRandom.bounded(20000)) - 1000;
    }

    double real()
    {
        static const QList<double> kOdd{0.0, -0.0, 2.5, -1.0, 1e308, -1e308, 4.9e-324, std::nan(""), std::numeric_limits<double>::infinity(),
                                        -std::numeric_limits<double>::infinity()};
        return mRandom.bounded(2) ? kOdd.at(mRandom.bounded(int(kOdd.size()))) : mRandom.bounded(100000.0);
    }

    QString pick(const QStringList& choices) { return choices.at(mRandom.bounded(int(choices.size()))); }

    QString ascii(int length)
    {
        QString text(length, Qt::Uninitialized);
        for (QChar& c : text)
            c = QChar(' ' + mRandom.bounded(95));
        return text;
    }

    // Huge strings anywhere, nested lists of them too: a refused call must let go of its message
    // at once, or the connection's count of unread bytes never falls and the server stops
    // reading its socket for good.
    QString text()
    {
        const int kind = mRandom.bounded(100);
        if (kind < 8) return QString();
        if (kind < 30) return pick(mWords);
        if (kind < 50) return ascii(1 + mRandom.bounded(32));
        if (kind < 58) return QStringLiteral("Grüße \u202Eabc\u0301 \U0001F3B5 \u4E2D\u6587 ") + ascii(mRandom.bounded(8));
        if (kind < 68) return item();
        if (kind < 73) return QStringLiteral("http://127.0.0.1:1/") + ascii(mRandom.bounded(12));
        if (kind < 83) return pick({"5000", "-1", "1e309", "NaN", "true", "0x10", "{}", "[]", "{\"url\":", "null", "/", "."});
        if (kind < 97) return ascii(100 + mRandom.bounded(4000));
        return QString(64 * 1024 + mRandom.bounded((1 << 20) - 64 * 1024), QChar('a' + mRandom.bounded(26)));
    }

    // A playable-looking item whose URL points at a port nothing listens on: refused at once.
    QString item()
    {
        const QJsonObject fields{{"url", QStringLiteral("http://127.0.0.1:1/%1.mp3").arg(mRandom.bounded(100))},
                                 {"cachekey", mRandom.bounded(2) ? QString() : ascii(8)},
                                 {"live-stream", bool(mRandom.bounded(2))},
                                 {"startposition", int(integer())}};
        return QString::fromUtf8(QJsonDocument(fields).toJson(QJsonDocument::Compact));
    }

    QDBusObjectPath objectPath()
    {
        return QDBusObjectPath(mRandom.bounded(2) ? mMethods.at(mRandom.bounded(int(mMethods.size()))).path
                                                  : QStringLiteral("/org/mpris/MediaPlayer2/TrackList/%1").arg(mRandom.bounded(3)));
    }

    QStringList strings()
    {
        QStringList list;
        for (int count = mRandom.bounded(8); count > 0; --count)
            list << text();
        return list;
    }

    QByteArray bytes()
    {
        QByteArray data(mRandom.bounded(50) ? mRandom.bounded(4096) : mRandom.bounded(1 << 20), Qt::Uninitialized);
        for (char& byte : data)
            byte = char(mRandom.bounded(256));
        return data;
    }

    QVariantList list(int depth)
    {
        QVariantList values;
        for (int count = mRandom.bounded(8); count > 0; --count)
            values << any(depth);
        return values;
    }

    // Mostly a handful of entries, now and then thousands.
    QVariantMap map(int depth)
    {
        QVariantMap entries;
        for (int count = mRandom.bounded(30) || depth > 1 ? mRandom.bounded(8) : mRandom.bounded(3000); count > 0; --count)
            entries.insert(mRandom.bounded(2) ? pick(mWords) : ascii(1 + mRandom.bounded(16)), any(depth));
        return entries;
    }

    const QList<Method>& mMethods;
    const QStringList& mWords;
    QRandomGenerator mRandom;
};

// One connection to the server's bus sending its share of the flood, kInFlight calls at a time.
class FloodClient : public QObject
{
    Q_OBJECT
public:
    FloodClient(const QString& address, const QString& service, CallMix mix, Tally* tally)
        : mName(QStringLiteral("flood-%1").arg(quintptr(this)))
        , mConnection(QDBusConnection::connectToBus(address, mName))
        , mService(service)
        , mMix(mix)
        , mTally(tally)
    {
    }
    ~FloodClient() override
    {
        mConnection = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus(mName);
    }

    bool isConnected() const { return mConnection.isConnected(); }
    bool isDone() const { return mLeft == 0 && mWaiting.isEmpty(); }
    QStringList waitingCalls() const { return mWaiting.values(); }

    void send(int calls)
    {
        mLeft = calls;
        while (mWaiting.size() < kInFlight && mLeft > 0)
            sendNext();
    }

private:
    void sendNext()
    {
        const Method* method = nullptr;
        QString description;
        const QDBusMessage message = mMix.next(mService, &method, &description);
        auto* watcher = new QDBusPendingCallWatcher(mConnection.asyncCall(message, kCallTimeoutMs), this);
        --mLeft;
        mWaiting.insert(watcher, description);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, method, description] {
            record(watcher->reply(), *method, description);
            watcher->deleteLater();
            mWaiting.remove(watcher);
            if (mLeft > 0)
                sendNext();
        });
    }

    void record(const QDBusMessage& reply, const Method& method, const QString& description)
    {
        ++mTally->perMethod[method.key()];
        if (reply.type() == QDBusMessage::ReplyMessage) {
            ++mTally->replies;
            return;
        }
        ++mTally->errors[reply.errorName()];
        if (kLost.contains(reply.errorName()) && mTally->lost.size() < 20)
            mTally->lost << reply.errorName() + QStringLiteral(": ") + description;
    }

    const QString mName;
    QDBusConnection mConnection;
    const QString mService;
    CallMix mMix;
    Tally* mTally;
    int mLeft = 0;
    QHash<QDBusPendingCallWatcher*, QString> mWaiting;   // the calls sent and not yet ended, described
};

// Status calls on the test's own connection, one after another while the flood runs.
class StatusProbe : public QObject
{
    Q_OBJECT
public:
    StatusProbe(const QDBusConnection& connection, const QString& service)
        : mConnection(connection)
        , mMessage(QDBusMessage::createMethodCall(service, "/MediaServer2", service, "ServiceStatus"))
    {
    }

    void start() { sendNext(); }
    void stop() { mStopped = true; }
    bool isIdle() const { return !mWaiting; }
    int sent() const { return mSent; }
    int answered() const { return mAnswered; }
    qint64 slowestMs() const { return mSlowestMs; }

private:
    void sendNext()
    {
        if (mStopped)
            return;
        mWaiting = true;
        ++mSent;
        mAge.start();
        auto* watcher = new QDBusPendingCallWatcher(QDBusConnection(mConnection).asyncCall(mMessage, kCallTimeoutMs), this);
        connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher] {
            mAnswered += watcher->reply().type() == QDBusMessage::ReplyMessage ? 1 : 0;
            mSlowestMs = qMax(mSlowestMs, mAge.elapsed());
            watcher->deleteLater();
            mWaiting = false;
            sendNext();
        });
    }

    const QDBusConnection mConnection;
    const QDBusMessage mMessage;
    QElapsedTimer mAge;
    bool mStopped = false;
    bool mWaiting = false;
    int mSent = 0;
    int mAnswered = 0;
    qint64 mSlowestMs = 0;
};

} // namespace

class TestFlood : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QVERIFY(mServer.start({"gstreamer/audio_sink=fakesink sync=true", "media_buffer/download_retries=1",
                               "media_buffer/download_timeout=1000"}));
        mTarget = mServer.connection().interface()->serviceOwner(kService);
        QVERIFY(!mTarget.isEmpty());
        discover(mServer.connection(), mTarget, QStringLiteral("/"), &mMethods, &mWords);
        mWords << mServer.call("/DataValues", "com.kelvramotors.DataValues", "List").arguments().value(0).toStringList();
        // CABIN_FLOOD_ONLY=<regular expression> floods only the methods whose "path interface.name"
        // matches it, to narrow a finding down.
        const QRegularExpression only(qEnvironmentVariable("CABIN_FLOOD_ONLY"));
        mMethods.removeIf([&](const Method& method) { return !only.match(method.key()).hasMatch(); });
        QStringList methods;
        for (const Method& method : mMethods) {
            methods << method.key() + QLatin1Char('(') + method.types.join(QLatin1Char(',')) + QLatin1Char(')');
            for (const QString& type : method.types)
                QVERIFY2(CallMix::builds(type), qPrintable(method.key() + " takes " + type + ", which the flood cannot build yet"));
        }
        qInfo("%d methods:\n  %s", int(mMethods.size()), qPrintable(methods.join("\n  ")));
        QVERIFY(!mMethods.isEmpty());
        mSeed = qEnvironmentVariableIsSet("CABIN_FLOOD_SEED") ? qEnvironmentVariable("CABIN_FLOOD_SEED").toULongLong()
                                                              : QRandomGenerator::system()->generate64();
        qInfo("seed %llu (CABIN_FLOOD_SEED=%llu sends the same calls again)", mSeed, mSeed);
    }

    // Every call ends in a reply or one of the server's errors, status calls are answered all
    // along, and the server lives on with the memory it had before.
    void answersEveryCallOfAFloodFromManyClients()
    {
        Tally warmUp;
        QVERIFY(flood(kWarmUpCalls, mSeed ^ 0x5eed, &warmUp));
        const qint64 before = settledRssKiB();
        QElapsedTimer duration;
        duration.start();
        Tally tally;
        StatusProbe probe(mServer.connection(), kService);
        probe.start();
        QVERIFY(flood(kCalls, mSeed, &tally));
        probe.stop();
        QTRY_VERIFY_WITH_TIMEOUT(probe.isIdle(), kCallTimeoutMs);
        const qint64 floodMs = duration.elapsed();
        const qint64 after = rssBackNear(before);
        report(tally, floodMs, before, after, probe);
        QVERIFY2(tally.lostCount() == 0, qPrintable(tally.lost.join('\n')));
        QCOMPARE(tally.finished(), kCalls);
        QCOMPARE(tally.perMethod.size(), mMethods.size());   // every method was called
        QVERIFY(probe.sent() > 1);
        QCOMPARE(probe.answered(), probe.sent());
        QVERIFY(mServer.isRunning());
        QCOMPARE(mServer.request("ServiceStatus").type(), QDBusMessage::ReplyMessage);
        QVERIFY2(footprintHeld(before, after), qPrintable(QStringLiteral("%1 KiB before, %2 KiB after").arg(before).arg(after)));
    }

    // A call refused half-way through its named arguments lets go of its message at once: the
    // server grows by nowhere near the megabytes it was sent, and goes on reading its socket.
    void aRefusedCallLetsGoOfItsMessage()
    {
        const auto typed = std::find_if(mMethods.cbegin(), mMethods.cend(), [](const Method& method) {
            return method.interface == kService && method.types.value(0) == QLatin1String("i");
        });
        QVERIFY2(typed != mMethods.cend(), "no method of the service takes an integer first");
        // Entries are read in key order: the megabyte ("!" sorts first) is read and kept, then
        // the declared argument's wrong type refuses the call.
        const QVariantMap named{{QStringLiteral("!padding"), QString(1 << 20, QLatin1Char('x'))},
                                {typed->names.first(), QStringLiteral("not a number")}};
        QDBusMessage call = QDBusMessage::createMethodCall(kService, typed->path, typed->interface, typed->name);
        call.setArguments({named});
        const qint64 before = settledRssKiB();
        for (int i = 0; i < kRefusedMegabyteCalls; ++i) {
            const QDBusMessage reply = mServer.connection().call(call, QDBus::Block, kCallTimeoutMs);
            QVERIFY2(reply.type() == QDBusMessage::ErrorMessage && !kLost.contains(reply.errorName()),
                     qPrintable(QStringLiteral("call %1: %2 %3").arg(i).arg(reply.errorName(), reply.errorMessage())));
        }
        const qint64 after = rssBackNear(before);
        qInfo("RSS %lld KiB before, %lld KiB after %d refused calls of 1 MiB", before, after, kRefusedMegabyteCalls);
        QVERIFY2(footprintHeld(before, after), qPrintable(QStringLiteral("%1 KiB before, %2 KiB after").arg(before).arg(after)));
    }

private:
    bool flood(int calls, quint64 seed, Tally* tally)
    {
        std::vector<std::unique_ptr<FloodClient>> clients;
        for (int i = 0; i < kClients; ++i) {
            clients.push_back(std::make_unique<FloodClient>(mServer.busAddress(), mTarget, CallMix(mMethods, mWords, seed + quint64(i)), tally));
            if (!clients.back()->isConnected())
                return false;
        }
        for (int i = 0; i < kClients; ++i)
            clients.at(i)->send(calls / kClients + (i < calls % kClients ? 1 : 0));
        const auto done = [&] { return std::all_of(clients.begin(), clients.end(), [](const auto& c) { return c->isDone(); }); };
        const QDeadlineTimer deadline(kFloodMs);
        while (!done() && !deadline.hasExpired())
            QTest::qWait(20);
        for (const auto& client : clients)
            for (const QString& call : client->waitingCalls())
                qWarning("never ended: %s", qPrintable(call));
        if (!mServer.isRunning())
            qWarning("the server died; its last log lines:\n%s", qPrintable(mServer.logLines().mid(qMax(0, mServer.logLineCount() - 40)).join('\n')));
        return done();
    }

    // AddressSanitizer keeps freed memory in quarantine, so the footprint tells nothing there;
    // the plain build compares it.
    static bool footprintHeld(qint64 before, qint64 after)
    {
#if defined(__SANITIZE_ADDRESS__)
        Q_UNUSED(before);
        Q_UNUSED(after);
        qInfo("footprint not compared: built with AddressSanitizer");
        return true;
#else
        return after - before <= kRssSlackKiB;
#endif
    }

    qint64 rssKiB()
    {
        QFile status(QStringLiteral("/proc/%1/status").arg(mServer.process().processId()));
        if (!status.open(QIODevice::ReadOnly))
            return -1;
        static const QRegularExpression rss(QStringLiteral("^VmRSS:\\s*(\\d+) kB$"), QRegularExpression::MultilineOption);
        return rss.match(QString::fromLatin1(status.readAll())).captured(1).toLongLong();
    }

    // The resident size once it is back within the slack of `before` (the server hands freed
    // pages back every few seconds), or its last value after half a minute.
    qint64 rssBackNear(qint64 before)
    {
        const QDeadlineTimer deadline(30000);
        qint64 now = rssKiB();
        while (now - before > kRssSlackKiB && !deadline.hasExpired()) {
            QTest::qWait(100);
            now = rssKiB();
        }
        return now;
    }

    // The resident size once it has stayed the same for a second (the server's idle timers
    // still run), or its last value after half a minute.
    qint64 settledRssKiB()
    {
        const QDeadlineTimer deadline(30000);
        qint64 last = rssKiB();
        QElapsedTimer steady;
        steady.start();
        while (steady.elapsed() < 1000 && !deadline.hasExpired()) {
            QTest::qWait(100);
            const qint64 now = rssKiB();
            if (now != last)
                steady.restart();
            last = now;
        }
        return last;
    }

    void report(const Tally& tally, qint64 floodMs, qint64 before, qint64 after, const StatusProbe& probe)
    {
        QStringList errors;
        for (auto it = tally.errors.cbegin(); it != tally.errors.cend(); ++it)
            errors << QStringLiteral("  %1 %2").arg(it.value(), 6).arg(it.key());
        qInfo("%d calls in %lld ms: %d replies, %d errors, %d lost\n%s\nstatus calls during the flood: %d sent, %d answered, "
              "slowest %lld ms\nRSS %lld KiB before, %lld KiB after (%+lld KiB)",
              tally.finished(), floodMs, tally.replies, tally.finished() - tally.replies, tally.lostCount(), qPrintable(errors.join('\n')),
              probe.sent(), probe.answered(), probe.slowestMs(), before, after, after - before);
    }

    ServerProcess mServer;
    QString mTarget;   // the server's unique name: every object it exports, under any of its names
    QList<Method> mMethods;
    QStringList mWords;
    quint64 mSeed = 0;
};

QTEST_GUILESS_MAIN(TestFlood)
#include "tst_flood.moc"
