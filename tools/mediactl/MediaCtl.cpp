#include "tools/mediactl/MediaCtl.h"

#include "media_server/gen/MediaServer2.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/SignalHandlers.h"
#include "platform/service/DBusServiceClient.h"
#include "platform/service/ServiceManager.h"
#include "tools/mediactl/DataPublisherClient.h"
#include "tools/mediactl/DataValuesClient.h"
#include "tools/mediactl/ItemOptions.h"
#include "tools/mediactl/MediaCtlSupport.h"
#include "tools/mediactl/StatusLine.h"
#include "tools/mediactl/StatusMessageDecoder.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QEventLoop>
#include <QRegularExpression>
#include <QTimer>

#include <climits>
#include <cstdio>

using namespace MediaCtlSupport;

const QList<MediaCtl::Subcommand>& MediaCtl::subcommands()
{
    static const QList<Subcommand> list = {
        {"load", "load URL [options]", "Load an item and the item expected next.", &MediaCtl::load},
        {"play", "play [MS]", "Play from the position in milliseconds (default 0).", &MediaCtl::play},
        {"pause", "pause", "Pause playback.", &MediaCtl::pause},
        {"seek", "seek MS", "Seek to the position in milliseconds.", &MediaCtl::seek},
        {"stop", "stop", "Stop playback.", &MediaCtl::stop},
        {"play-file", "play-file PATH", "Play a local media file.", &MediaCtl::playFile},
        {"stop-file", "stop-file", "Stop the local media file.", &MediaCtl::stopFile},
        {"service-status", "service-status", "Print the service statistics (JSON).", &MediaCtl::serviceStatus},
        {"get", "get NAME", "Print a data value.", &MediaCtl::get},
        {"set", "set NAME VALUE", "Set a data value other processes may write.", &MediaCtl::set},
        {"values", "values", "Print every data value, one per line.", &MediaCtl::values},
        {"wait", "wait NAME REGEX [--timeout S]", "Wait until a data value matches.", &MediaCtl::wait},
        {"watch", "watch [NAME...] [options]", "Print status messages as they arrive (--json, --count N).", &MediaCtl::watch},
        {"status", "status [--json]", "Print every status message as it is now.", &MediaCtl::status},
    };
    return list;
}

QString MediaCtl::usage()
{
    QString text = QStringLiteral("Usage: cabin-mediactl [--bus ADDRESS] SUBCOMMAND [ARGS]\n"
                                  "Drives a running cabin-media-server over D-Bus.\n\nSubcommands:\n");
    for (const Subcommand& sub : subcommands())
        text += QStringLiteral("  %1%2\n").arg(QString::fromLatin1(sub.synopsis), -34).arg(QString::fromLatin1(sub.description));
    return text + QStringLiteral("\n--bus: \"session\" (default), \"system\" or a bus address.\n"
                                 "Exit status: 0 true, 1 false, 3 time-out, 2 usage or transport error.");
}

bool MediaCtl::takeBusOption(QStringList* args)
{
    for (int i = 0; i < args->size(); ++i) {
        QString address;
        if (args->at(i) == QLatin1String("--bus") && i + 1 < args->size()) {
            address = args->at(i + 1);
            args->remove(i, 2);
        } else if (args->at(i).startsWith(QLatin1String("--bus="))) {
            address = args->at(i).mid(6);
            args->remove(i);
        } else {
            continue;
        }
        return ConfigStore::instance()->set(QStringLiteral("service/bus"), address, nullptr);
    }
    return true;
}

int MediaCtl::run(const QStringList& arguments)
{
    QStringList args = arguments;
    takeBusOption(&args);
    if (args.isEmpty() || args.first() == QLatin1String("--help") || args.first() == QLatin1String("-h")) {
        say(args.isEmpty() ? stderr : stdout, usage());
        return args.isEmpty() ? Failure : True;
    }
    const QString name = args.takeFirst();
    for (const Subcommand& sub : subcommands())
        if (name == QLatin1String(sub.name))
            return (this->*sub.handler)(args);
    return fail(QStringLiteral("unknown subcommand \"%1\" (see --help)").arg(name));
}

bool MediaCtl::connect()
{
    QString error;
    if (!ServiceManager::instance()->connectBus(&error)) {
        fail(error);
        return false;
    }
    mProxy = new MediaServer2(ClientInstance, QCoreApplication::instance());
    mValues = new DataValuesClient(ServiceManager::instance()->connection(), QCoreApplication::instance());
    mPublishers = new DataPublisherClient(ServiceManager::instance()->connection(), QCoreApplication::instance());
    return true;
}

// The answer of a bool request, or the failure that kept it from arriving.
int MediaCtl::answerOf(bool answer, const ServiceCallContext& context)
{
    if (context.error() == ServiceCallContext::Timeout) {
        say(stderr, QStringLiteral("cabin-mediactl: %1: no answer within %2 ms").arg(context.method()).arg(mProxy->timeout(context.method())));
        return TimedOut;
    }
    if (context.error() != ServiceCallContext::NoError)
        return fail(context.method() + QStringLiteral(": ") + context.errorMessage());
    say(stdout, answer ? QStringLiteral("true") : QStringLiteral("false"));
    return answer ? True : False;
}

int MediaCtl::load(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Load an item (URL) and the item expected next."));
    parser.addPositionalArgument(QStringLiteral("URL"), QStringLiteral("Address of the item (not needed with --json)."));
    ItemOptions options;
    options.addTo(&parser);
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("load"), args, 0, 1, &result))
        return result;
    if (parser.positionalArguments().isEmpty() && !parser.isSet(QStringLiteral("json")))
        return fail(QStringLiteral("load: give a URL or --json TEXT"));
    QString item, onDeck, error;
    if (!options.itemJson(parser, parser.positionalArguments().value(0), &item, &error) || !options.onDeckJson(parser, &onDeck, &error))
        return fail(QStringLiteral("load: ") + error);
    if (!connect())
        return Failure;
    ServiceCallContext context(ServiceCallContext::Client);
    return answerOf(mProxy->loadMedia(item, onDeck, &context), context);
}

int MediaCtl::play(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Play from the position in milliseconds (default 0)."));
    parser.addPositionalArgument(QStringLiteral("MS"), QStringLiteral("Start position in milliseconds."), QStringLiteral("[MS]"));
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("play"), args, 0, 1, &result))
        return result;
    int position = 0;
    if (!parser.positionalArguments().isEmpty() && !parseInt(parser.positionalArguments().first(), &position))
        return fail(QStringLiteral("play: MS must be a number of milliseconds"));
    if (!connect())
        return Failure;
    ServiceCallContext context(ServiceCallContext::Client);
    return answerOf(mProxy->play(position, &context), context);
}

int MediaCtl::seek(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Seek to the position in milliseconds."));
    parser.addPositionalArgument(QStringLiteral("MS"), QStringLiteral("Position in milliseconds."));
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("seek"), args, 1, 1, &result))
        return result;
    int position = 0;
    if (!parseInt(parser.positionalArguments().first(), &position))
        return fail(QStringLiteral("seek: MS must be a number of milliseconds"));
    if (!connect())
        return Failure;
    ServiceCallContext context(ServiceCallContext::Client);
    return answerOf(mProxy->seek(position, &context), context);
}

int MediaCtl::simpleRequest(const QString& name, const QString& description, const QStringList& args,
                            bool (MediaServer2::*call)(ServiceCallContext*))
{
    QCommandLineParser parser;
    parser.setApplicationDescription(description);
    int result = Failure;
    if (!parseSubcommand(&parser, name, args, 0, 0, &result))
        return result;
    if (!connect())
        return Failure;
    ServiceCallContext context(ServiceCallContext::Client);
    return answerOf((mProxy->*call)(&context), context);
}

int MediaCtl::pause(const QStringList& args)
{
    return simpleRequest(QStringLiteral("pause"), QStringLiteral("Pause playback."), args, &MediaServer2::pause);
}

int MediaCtl::stop(const QStringList& args)
{
    return simpleRequest(QStringLiteral("stop"), QStringLiteral("Stop playback."), args, &MediaServer2::stop);
}

int MediaCtl::stopFile(const QStringList& args)
{
    return simpleRequest(QStringLiteral("stop-file"), QStringLiteral("Stop the local media file."), args, &MediaServer2::stopMediaFile);
}

int MediaCtl::playFile(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Play a local media file."));
    parser.addPositionalArgument(QStringLiteral("PATH"), QStringLiteral("The file."));
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("play-file"), args, 1, 1, &result) || !connect())
        return result;
    ServiceCallContext context(ServiceCallContext::Client);
    return answerOf(mProxy->playMediaFile(parser.positionalArguments().first(), &context), context);
}

int MediaCtl::serviceStatus(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Print the service statistics (JSON)."));
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("service-status"), args, 0, 0, &result) || !connect())
        return result;
    ServiceCallContext context(ServiceCallContext::Client);
    context.initCall(QStringLiteral("MediaServer2"), QStringLiteral("ServiceStatus"), false, false, 0);
    if (!ServiceManager::instance()->client()->call(mProxy, &context))
        return answerOf(false, context);
    say(stdout, QString::fromUtf8(context.responseBody()));
    return True;
}

int MediaCtl::get(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Print a data value (exit status 1 when it has none)."));
    parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The value's name, e.g. MEDIA2_serverState."));
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("get"), args, 1, 1, &result) || !connect())
        return result;
    const QString name = parser.positionalArguments().first();
    bool valid = false;
    QVariant value;
    if (!mValues->get(name, &valid, &value))
        return fail(QStringLiteral("get: ") + mValues->error());
    say(stdout, valid ? DataValuesClient::text(name, value) : QStringLiteral("invalid"));
    return valid ? True : False;
}

int MediaCtl::set(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Set a data value other processes may write (e.g. GUI_canUseInternet false)."));
    parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The value's name."));
    parser.addPositionalArgument(QStringLiteral("VALUE"), QStringLiteral("true/false, a number or a text."));
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("set"), args, 2, 2, &result) || !connect())
        return result;
    if (!mValues->set(parser.positionalArguments().at(0), guessValue(parser.positionalArguments().at(1))))
        return fail(QStringLiteral("set: ") + mValues->error());
    return True;
}

int MediaCtl::values(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Print every data value, one per line: NAME, a tab, the value."));
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("values"), args, 0, 0, &result) || !connect())
        return result;
    QStringList names;
    if (!mValues->list(&names))
        return fail(QStringLiteral("values: ") + mValues->error());
    for (const QString& name : names) {
        bool valid = false;
        QVariant value;
        if (!mValues->get(name, &valid, &value))
            return fail(QStringLiteral("values: ") + mValues->error());
        say(stdout, name + QLatin1Char('\t') + (valid ? DataValuesClient::text(name, value) : QStringLiteral("invalid")));
    }
    return True;
}

int MediaCtl::wait(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Wait until a data value's text matches REGEX (\"invalid\" while it has none)."));
    parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The value's name."));
    parser.addPositionalArgument(QStringLiteral("REGEX"), QStringLiteral("A regular expression."));
    parser.addOption({QStringLiteral("timeout"), QStringLiteral("Give up after S seconds (default 10)."), QStringLiteral("S"), QStringLiteral("10")});
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("wait"), args, 2, 2, &result))
        return result;
    const QRegularExpression pattern(parser.positionalArguments().at(1));
    bool ok = false;
    const double seconds = parser.value(QStringLiteral("timeout")).toDouble(&ok);
    if (!pattern.isValid() || !ok || seconds < 0)
        return fail(QStringLiteral("wait: give a valid REGEX and --timeout in seconds"));
    if (!connect())
        return Failure;
    return waitFor(parser.positionalArguments().at(0), pattern, int(seconds * 1000));
}

// Subscribes first, then reads the current value, so a change in between is not missed.
int MediaCtl::waitFor(const QString& name, const QRegularExpression& pattern, int timeoutMs)
{
    if (!mValues->subscribe())
        return fail(QStringLiteral("wait: ") + mValues->error());
    QEventLoop loop;
    int status = TimedOut;
    auto check = [&](const QString& changedName, bool valid, const QVariant& value) {
        const QString text = valid ? DataValuesClient::text(changedName, value) : QStringLiteral("invalid");
        if (changedName == name && pattern.match(text).hasMatch()) {
            say(stdout, text);
            status = True;
            loop.quit();
        }
    };
    QObject::connect(mValues, &DataValuesClient::changed, &loop, check);
    bool valid = false;
    QVariant value;
    if (!mValues->get(name, &valid, &value))
        return fail(QStringLiteral("wait: ") + mValues->error());
    check(name, valid, value);
    if (status == True)
        return True;
    QTimer::singleShot(timeoutMs, &loop, &QEventLoop::quit);
    loop.exec();
    if (status == TimedOut)
        say(stderr, QStringLiteral("cabin-mediactl: wait: %1 did not match within %2 ms").arg(name).arg(timeoutMs));
    return status;
}

// One decoded line on stdout, flushed at once so a pipe sees each message as it comes; a body
// that does not decode is one line on stderr.
bool MediaCtl::printStatus(const QString& subcommand, const QString& message, const QByteArray& body, bool json)
{
    QList<StatusMessageDecoder::Value> values;
    QString error;
    if (!StatusMessageDecoder::decode(message, body, &values, &error)) {
        fail(subcommand + QStringLiteral(": ") + error);
        return false;
    }
    say(stdout, json ? StatusLine::json(message, values) : StatusLine::text(message, values));
    std::fflush(stdout);
    return true;
}

int MediaCtl::status(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Print every status message as the server assembles it now, one per line "
                                                    "(\"-\" for a value that has none)."));
    parser.addOption(jsonOption());
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("status"), args, 0, 0, &result) || !connect())
        return result;
    for (const QString& message : StatusMessageDecoder::messageNames()) {
        QByteArray body;
        if (!mPublishers->assemble(message, &body))
            return fail(QStringLiteral("status: ") + mPublishers->error());
        if (!printStatus(QStringLiteral("status"), message, body, parser.isSet(QStringLiteral("json"))))
            return Failure;
    }
    return True;
}

int MediaCtl::watch(const QStringList& args)
{
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Print status messages as they arrive, one per line, until SIGINT or SIGTERM "
                                                    "(\"-\" for a value that has none)."));
    parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("Messages to show (default all): ")
                                 + StatusMessageDecoder::messageNames().join(QStringLiteral(", ")), QStringLiteral("[NAME...]"));
    parser.addOption(jsonOption());
    parser.addOption({QStringLiteral("count"), QStringLiteral("Exit after N messages."), QStringLiteral("N")});
    int result = Failure;
    if (!parseSubcommand(&parser, QStringLiteral("watch"), args, 0, INT_MAX, &result))
        return result;
    const QStringList names = parser.positionalArguments().isEmpty() ? StatusMessageDecoder::messageNames() : parser.positionalArguments();
    for (const QString& name : names)
        if (!StatusMessageDecoder::messageNames().contains(name))
            return fail(QStringLiteral("watch: unknown message \"%1\" (see cabin-mediactl watch --help)").arg(name));
    int count = 0;
    if (parser.isSet(QStringLiteral("count")) && (!parseInt(parser.value(QStringLiteral("count")), &count) || count < 1))
        return fail(QStringLiteral("watch: --count must be a positive number"));
    if (!connect())
        return Failure;
    if (!mPublishers->subscribe())
        return fail(QStringLiteral("watch: ") + mPublishers->error());
    return watchUntilDone(names, parser.isSet(QStringLiteral("json")), count);
}

// Runs until `count` messages have printed (0: no limit) or a quit signal ends the loop.
int MediaCtl::watchUntilDone(const QStringList& names, bool json, int count)
{
    registerSignalHandlers();
    int printed = 0;
    QObject::connect(mPublishers, &DataPublisherClient::arrived, QCoreApplication::instance(),
                     [&](const QString& message, const QByteArray& body) {
                         if (names.contains(message) && printStatus(QStringLiteral("watch"), message, body, json) && ++printed == count)
                             QCoreApplication::quit();
                     });
    QCoreApplication::exec();
    return True;
}
