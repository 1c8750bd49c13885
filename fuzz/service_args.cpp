// Fuzz target: hostile arguments of a D-Bus call through DBusArguments::toNamedArguments(). The
// bytes choose a method of a table like the media server's and build a call to it: positional
// arguments, or one a{sv} map, of types the bytes choose (integers of every width, double,
// bool, string, byte array, string list, nested variants, a map as a value), with keys and
// values the bytes choose. The call goes over a real peer-to-peer connection inside this
// process, so that toNamedArguments() sees the message exactly as the bus delivers it.
//
// Beyond memory errors and undefined behaviour, which the sanitizers catch: either the call is
// refused with a reason naming an argument the call carried (or the undeclared-argument limit),
// or every declared argument the call carried is converted to its declared type, keeping the
// value when it was sent with that type, and every other argument is kept under its name.

#include "fuzz/FuzzCheck.h"
#include "platform/service/DBusArguments.h"

#include <QCoreApplication>
#include <QDBusConnection>
#include <QDBusServer>
#include <QDBusVariant>
#include <QDBusVirtualObject>
#include <QTemporaryDir>

#include <fuzzer/FuzzedDataProvider.h>

namespace {

// The media server's methods with arguments, and one taking a bool, the third type a table
// may declare.
const ServiceMethodTable kTable = {
    {QStringLiteral("stop"), {}, QMetaType::Bool, 3000},
    {QStringLiteral("play"), {{QStringLiteral("milliSecondsStartPos"), QMetaType::Int}}, QMetaType::Bool, 3000},
    {QStringLiteral("loadMedia"), {{QStringLiteral("playbackMetadata"), QMetaType::QString},
                                   {QStringLiteral("onDeckMetadata"), QMetaType::QString}}, QMetaType::Bool, 3000},
    {QStringLiteral("playMediaFile"), {{QStringLiteral("fileName"), QMetaType::QString}}, QMetaType::Bool, 3000},
    {QStringLiteral("setLive"), {{QStringLiteral("live"), QMetaType::Bool}}, QMetaType::Void, 250},
};

// Deep enough for variants in variants and maps in maps; libdbus refuses far deeper nesting.
constexpr int kMaxDepth = 4;
// A few more than any method declares, so that extra positional arguments come up.
constexpr int kMaxPositional = 4;
// Enough keys to pass the undeclared-argument limit now and then.
constexpr int kMaxKeys = 80;

QVariant makeValue(FuzzedDataProvider& in, int depth);

// D-Bus strings end at a NUL, so a string holding one would arrive cut short: not what was sent.
QString randomText(FuzzedDataProvider& in, size_t maxLength)
{
    return QString::fromStdString(in.ConsumeRandomLengthString(maxLength)).remove(QChar(0));
}

QVariantMap makeMap(FuzzedDataProvider& in, int depth, const ServiceMethod& method)
{
    QVariantMap map;
    const int keys = in.ConsumeIntegralInRange(0, kMaxKeys);
    for (int i = 0; i < keys && in.remaining_bytes() > 0; ++i) {
        // Mostly a declared name, so that conversions are reached; otherwise any text.
        const bool declared = !method.arguments.isEmpty() && in.ConsumeBool();
        const QString key = declared ? method.arguments.at(in.ConsumeIntegralInRange<int>(0, int(method.arguments.size()) - 1)).name
                                     : randomText(in, 16);
        map.insert(key, makeValue(in, depth + 1));
    }
    return map;
}

QString makeText(FuzzedDataProvider& in)
{
    // Numbers and flags as text now and then, to tempt a lax conversion.
    static const char* const kTexts[] = {"5", " -7 ", "1.5", "true", "0", "2147483648", "FALSE"};
    if (in.ConsumeIntegralInRange(0, 3) == 0)
        return QString::fromLatin1(kTexts[in.ConsumeIntegralInRange<size_t>(0, std::size(kTexts) - 1)]);
    return randomText(in, 64);
}

QVariant makeValue(FuzzedDataProvider& in, int depth)
{
    switch (in.ConsumeIntegralInRange(0, depth < kMaxDepth ? 13 : 10)) {
    case 0: return in.ConsumeIntegral<int>();
    case 1: return in.ConsumeIntegral<uint>();
    case 2: return qlonglong(in.ConsumeIntegral<qint64>());
    case 3: return qulonglong(in.ConsumeIntegral<quint64>());
    case 4: return QVariant::fromValue(in.ConsumeIntegral<short>());
    case 5: return QVariant::fromValue(in.ConsumeIntegral<uchar>());
    case 6: return in.ConsumeFloatingPoint<double>();
    case 7: return in.ConsumeBool();
    case 8: return makeText(in);
    case 9: return QByteArray::fromStdString(in.ConsumeRandomLengthString(64));
    case 10: return QStringList{makeText(in), makeText(in)};
    case 11:
    case 12: return QVariant::fromValue(QDBusVariant(makeValue(in, depth + 1)));
    default: return makeMap(in, depth + 1, ServiceMethod());
    }
}

// What the last call carried, to judge what toNamedArguments() made of it.
struct Sent
{
    const ServiceMethod* method = nullptr;
    bool named = false;
    QVariantList positional;
    QVariantMap map;
};

Sent sSent;
bool sHandled = false;

bool carried(const QString& name)
{
    if (sSent.named)
        return sSent.map.contains(name);
    for (int i = 0; i < sSent.method->arguments.size() && i < sSent.positional.size(); ++i)
        if (sSent.method->arguments.at(i).name == name)
            return true;
    return false;
}

QVariant sentValue(const QString& name)
{
    if (sSent.named)
        return sSent.map.value(name);
    for (int i = 0; i < sSent.method->arguments.size() && i < sSent.positional.size(); ++i)
        if (sSent.method->arguments.at(i).name == name)
            return sSent.positional.at(i);
    return QVariant();
}

void checkRefusal(const QString& error)
{
    const ServiceMethod& method = *sSent.method;
    bool namesOne = error.contains(QStringLiteral("undeclared arguments for %1").arg(method.name)) && sSent.named;
    for (const ServiceArgument& argument : method.arguments)
        namesOne = namesOne || (error.startsWith(QStringLiteral("argument \"%1\"").arg(argument.name)) && carried(argument.name));
    fuzzCheck(namesOne, "a refusal names no argument the call carried");
}

void checkDeclared(const ServiceArgument& argument, const QVariantMap& arguments)
{
    if (!carried(argument.name)) {
        fuzzCheck(!arguments.contains(argument.name), "an argument the call did not carry was made up");
        return;
    }
    const QVariant value = arguments.value(argument.name);
    fuzzCheck(value.userType() == argument.type, "a declared argument was not converted to its declared type");
    const QVariant sent = sentValue(argument.name);
    if (sent.userType() == argument.type)
        fuzzCheck(value == sent, "a declared argument sent with its own type changed its value");
}

void checkAcceptance(const QVariantMap& arguments)
{
    for (const ServiceArgument& argument : sSent.method->arguments)
        checkDeclared(argument, arguments);
    if (sSent.named) {
        fuzzCheck(arguments.size() == sSent.map.size(), "named arguments were lost or made up");
        return;
    }
    for (int i = int(sSent.method->arguments.size()); i < sSent.positional.size(); ++i)
        fuzzCheck(arguments.contains(QStringLiteral("arg%1").arg(i)), "an extra positional argument was not kept");
    fuzzCheck(arguments.size() == sSent.positional.size(), "positional arguments were lost or made up");
}

class Receiver : public QDBusVirtualObject
{
public:
    QString introspect(const QString&) const override { return QString(); }
    bool handleMessage(const QDBusMessage& message, const QDBusConnection&) override
    {
        fuzzCheck((message.signature() == QLatin1String("a{sv}")) == sSent.named, "the call did not arrive in the form sent");
        QVariantMap arguments;
        QString error;
        if (DBusArguments::toNamedArguments(message, *sSent.method, &arguments, &error))
            checkAcceptance(arguments);
        else
            checkRefusal(error);
        sHandled = true;
        return true;
    }
};

struct Peers
{
    QTemporaryDir dir;
    QDBusServer* server = nullptr;
    Receiver receiver;
    bool registered = false;
};

Peers* sPeers = nullptr;

void waitFor(const bool& flag)
{
    while (!flag)
        QCoreApplication::processEvents(QEventLoop::WaitForMoreEvents);
}

QDBusConnection client()
{
    return QDBusConnection(QStringLiteral("fuzz-client"));
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int* argc, char*** argv)
{
    new QCoreApplication(*argc, *argv);
    sPeers = new Peers;
    sPeers->server = new QDBusServer(QStringLiteral("unix:dir=%1").arg(sPeers->dir.path()));
    QObject::connect(sPeers->server, &QDBusServer::newConnection, [](const QDBusConnection& connection) {
        QDBusConnection(connection).registerVirtualObject(QStringLiteral("/"), &sPeers->receiver);
        sPeers->registered = true;
    });
    fuzzCheck(QDBusConnection::connectToPeer(sPeers->server->address(), QStringLiteral("fuzz-client")).isConnected(),
              "cannot connect to the in-process server");
    waitFor(sPeers->registered);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    FuzzedDataProvider in(data, size);
    sSent = Sent();
    sSent.method = &kTable.at(in.ConsumeIntegralInRange<int>(0, int(kTable.size()) - 1));
    QDBusMessage call = QDBusMessage::createMethodCall(QString(), QStringLiteral("/"), QString(), sSent.method->name);
    sSent.named = in.ConsumeIntegralInRange(0, 2) == 0;
    if (sSent.named) {
        sSent.map = makeMap(in, 0, *sSent.method);
        call << sSent.map;
    } else {
        const int count = in.ConsumeIntegralInRange(0, kMaxPositional);
        for (int i = 0; i < count; ++i)
            sSent.positional.append(makeValue(in, 0));
        call.setArguments(sSent.positional);
        // A lone map is the named form, whoever built it.
        if (count == 1 && sSent.positional.first().userType() == QMetaType::QVariantMap) {
            sSent.named = true;
            sSent.map = sSent.positional.first().toMap();
        }
    }
    sHandled = false;
    if (!client().send(call))
        return 0;
    waitFor(sHandled);
    return 0;
}
