// cabin-test-http-server: the tests' scriptable HTTP server on 127.0.0.1, for demos and manual
// tests of streaming, buffering and radio. Runs until SIGTERM or SIGINT.
//
//   cabin-test-http-server [--port N] [--log-requests] RESOURCE...
//   RESOURCE: --serve PATH=FILE | --generate PATH=BYTES | --redirect PATH=LOCATION
//     followed by modifiers of that resource: --no-length --no-ranges --chunked
//     --rate BYTES_PER_S --stall-after N --close-after N --status CODE
//     --icy [--icy-http10] [--metaint N] [--titles "A|B|C"] [--title-seconds N] [--burst BYTES]
// Prints "listening on http://127.0.0.1:PORT" once it listens; with --log-requests, also each
// request's request line and header lines, each prefixed "request: ", as it arrives.
// Exit status: 0 normal end, 1 cannot listen, 2 usage error or unreadable file.

#include "platform/core/SignalHandlers.h"
#include "tests/support/TestHttpServer.h"

#include <QCoreApplication>
#include <QFile>
#include <QStringList>

#include <cstdio>

namespace {

struct Options {
    quint16 port = 0;
    bool logRequests = false;
    QList<QPair<QString, TestHttpResource>> resources;
};

// Deterministic bytes that differ from their neighbours, so a wrong offset shows.
QByteArray generatedBytes(qint64 size)
{
    QByteArray bytes(size, '\0');
    for (qint64 i = 0; i < size; ++i)
        bytes[i] = char(i * 31 % 251);
    return bytes;
}

// Fills resource as a --serve, --generate or --redirect option with this source asks.
bool describeResource(const QString& option, const QString& source, TestHttpResource& resource)
{
    if (option == QLatin1String("--redirect")) {
        resource.redirectTo = source.toUtf8();
        return true;
    }
    if (option == QLatin1String("--generate")) {
        bool ok = false;
        const qint64 size = source.toLongLong(&ok);
        resource.body = generatedBytes(ok ? qMax<qint64>(size, 0) : 0);
        return ok && size >= 0;
    }
    QFile file(source);
    if (!file.open(QIODevice::ReadOnly)) {
        std::fprintf(stderr, "cabin-test-http-server: %s: %s\n", qPrintable(source), qPrintable(file.errorString()));
        return false;
    }
    resource.body = file.readAll();
    return true;
}

bool addResource(Options& options, const QString& option, const QString& value)
{
    const int equals = value.indexOf(QLatin1Char('='));
    TestHttpResource resource;
    if (equals <= 0 || !describeResource(option, value.mid(equals + 1), resource))
        return false;
    options.resources.append({value.left(equals), resource});
    return true;
}

// Modifiers that take no value, by the field they set and the value they give it.
bool applyFlag(TestHttpResource& resource, const QString& option)
{
    static const QHash<QString, QPair<bool TestHttpResource::*, bool>> flags{
        {QStringLiteral("--no-length"), {&TestHttpResource::contentLength, false}},
        {QStringLiteral("--no-ranges"), {&TestHttpResource::acceptRanges, false}},
        {QStringLiteral("--chunked"), {&TestHttpResource::chunked, true}},
        {QStringLiteral("--icy"), {&TestHttpResource::icy, true}},
        {QStringLiteral("--icy-http10"), {&TestHttpResource::icyStatusLine, false}},
    };
    const auto flag = flags.constFind(option);
    if (flag != flags.constEnd())
        resource.*(flag->first) = flag->second;
    return flag != flags.constEnd();
}

// Modifiers that take a value; false when option is none of them or the value is bad.
bool applyValue(TestHttpResource& resource, const QString& option, const QString& value)
{
    static const QHash<QString, qint64 TestHttpResource::*> sizes{
        {QStringLiteral("--rate"), &TestHttpResource::bytesPerSecond},
        {QStringLiteral("--stall-after"), &TestHttpResource::stallAfter},
        {QStringLiteral("--close-after"), &TestHttpResource::closeAfter},
        {QStringLiteral("--burst"), &TestHttpResource::icyBurstBytes},
    };
    static const QHash<QString, int TestHttpResource::*> numbers{
        {QStringLiteral("--status"), &TestHttpResource::status},
        {QStringLiteral("--metaint"), &TestHttpResource::icyMetaInt},
        {QStringLiteral("--title-seconds"), &TestHttpResource::icyTitleSeconds},
    };
    bool ok = option == QLatin1String("--titles");
    if (ok)
        resource.icyTitles = value.split(QLatin1Char('|'));
    else if (sizes.contains(option))
        resource.*sizes.value(option) = value.toLongLong(&ok);
    else if (numbers.contains(option))
        resource.*numbers.value(option) = value.toInt(&ok);
    return ok;
}

bool parse(QStringList args, Options& options)
{
    const QStringList resourceOptions{QStringLiteral("--serve"), QStringLiteral("--generate"), QStringLiteral("--redirect")};
    while (!args.isEmpty()) {
        const QString option = args.takeFirst();
        TestHttpResource* last = options.resources.isEmpty() ? nullptr : &options.resources.last().second;
        if (last && applyFlag(*last, option))
            continue;
        if (option == QLatin1String("--log-requests")) {
            options.logRequests = true;
            continue;
        }
        if (args.isEmpty())
            return false;
        const QString value = args.takeFirst();
        bool ok = false;
        if (option == QLatin1String("--port"))
            options.port = quint16(value.toUShort(&ok));
        else if (resourceOptions.contains(option))
            ok = addResource(options, option, value);
        else
            ok = last && applyValue(*last, option, value);
        if (!ok)
            return false;
    }
    return !options.resources.isEmpty();
}

// Shows what each client asked for, such as the Range header of a resumed download.
void logRequests(TestHttpServer& server)
{
    QObject::connect(&server, &TestHttpServer::requestReceived, &server, [&server](const QString& path) {
        for (const QByteArray& line : server.requestHeaders(path).constLast().split('\n'))
            std::printf("request: %s\n", line.trimmed().constData());
        std::fflush(stdout);
    });
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    Options options;
    if (!parse(app.arguments().mid(1), options)) {
        std::fputs("usage: cabin-test-http-server [--port N] [--log-requests] (--serve PATH=FILE | --generate PATH=BYTES | --redirect PATH=LOCATION) [modifiers]...\n"
                   "  modifiers: --no-length --no-ranges --chunked --rate B/S --stall-after N --close-after N --status CODE\n"
                   "             --icy --icy-http10 --metaint N --titles \"A|B|C\" --title-seconds N\n", stderr);
        return 2;
    }
    registerSignalHandlers();
    TestHttpServer server;
    for (const auto& [path, resource] : options.resources)
        server.setResource(path, resource);
    if (options.logRequests)
        logRequests(server);
    if (!server.start(options.port))
        return 1;
    std::printf("listening on http://127.0.0.1:%u\n", server.port());
    std::fflush(stdout);
    return app.exec() == 0 ? 0 : 1;
}
