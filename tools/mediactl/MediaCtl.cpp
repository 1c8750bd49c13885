#include "tools/mediactl/MediaCtl.h"

#include "media_server/gen/MediaServer2.h"
#include "platform/config/ConfigStore.h"
#include "platform/service/DBusServiceClient.h"
#include "platform/service/ServiceManager.h"
#include "tools/mediactl/DataPublisherClient.h"
#include "tools/mediactl/DataValuesClient.h"
#include "tools/mediactl/ItemOptions.h"
#include "tools/mediactl/LoadProgress.h"
#include "tools/mediactl/MediaCtlSupport.h"
#include "tools/mediactl/SubcommandLine.h"

#include <QCoreApplication>
#include <QDBusConnectionInterface>

#include <climits>
#include <unistd.h>

using namespace MediaCtlSupport;

namespace {

const char kServiceName[] = "com.kelvramotors.MediaServer2";

} // namespace

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
        {"get", "get NAME", "Print a data value (- when it has none).", &MediaCtl::get},
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
                                  "       cabin-mediactl --help | --version\n"
                                  "Drives a running cabin-media-server over D-Bus.\n\nSubcommands:\n");
    for (const Subcommand& sub : subcommands())
        text += QStringLiteral("  %1%2\n").arg(QString::fromLatin1(sub.synopsis), -34).arg(QString::fromLatin1(sub.description));
    return text + QStringLiteral("\n--bus: \"session\" (default), \"system\" or a bus address such as unix:path=/run/bus.\n"
                                 "SUBCOMMAND --help describes a subcommand.\n"
                                 "Exit status: 0 true, 1 false, 3 time-out, 2 usage or transport error.");
}

bool MediaCtl::takeBus(const QString& address, int* status)
{
    QString error;
    // A bus address never starts with "-": that is the next option, and --bus was left empty.
    if (address.isEmpty() || address.startsWith(QLatin1Char('-'))) {
        *status = fail(QStringLiteral("--bus needs a value: session, system or a bus address (see --help)"));
        return false;
    }
    if (!ConfigStore::instance()->set(QStringLiteral("service/bus"), address, &error)) {
        *status = fail(QStringLiteral("--bus: ") + error);
        return false;
    }
    mBus = address;
    return true;
}

// The options before the subcommand; false when the caller should return *status at once.
bool MediaCtl::takeGlobalOptions(QStringList* args, int* status)
{
    while (!args->isEmpty() && args->first().startsWith(QLatin1Char('-'))) {
        const QString option = args->takeFirst();
        if (option == QLatin1String("--help") || option == QLatin1String("-h")) {
            say(stdout, usage());
            *status = True;
            return false;
        }
        if (option == QLatin1String("--version")) {
            say(stdout, QStringLiteral("cabin-mediactl " CABIN_VERSION));
            *status = True;
            return false;
        }
        if (option.startsWith(QLatin1String("--bus="))) {
            if (!takeBus(option.mid(6), status))
                return false;
        } else if (option == QLatin1String("--bus")) {
            if (!takeBus(args->isEmpty() ? QString() : args->takeFirst(), status))
                return false;
        } else {
            *status = fail(QStringLiteral("unknown option \"%1\" (see --help)").arg(option));
            return false;
        }
    }
    return true;
}

int MediaCtl::run(const QStringList& arguments)
{
    QStringList args = arguments;
    int status = Failure;
    if (!takeGlobalOptions(&args, &status))
        return status;
    if (args.isEmpty()) {
        say(stderr, usage());
        return Failure;
    }
    const QString name = args.takeFirst();
    for (const Subcommand& sub : subcommands())
        if (name == QLatin1String(sub.name))
            return (this->*sub.handler)(args);
    return fail(QStringLiteral("unknown subcommand \"%1\" (see --help)").arg(name));
}

// A name nobody owns fails a request only when it is sent, and a watch on it would wait for
// good: every subcommand meets the absent server here, with the same line.
bool MediaCtl::connect()
{
    QString error;
    if (!ServiceManager::instance()->connectBus(&error)) {
        fail(QStringLiteral("cannot reach %1 (%2): is it running? --bus selects another bus")
                 .arg(busName(mBus), ServiceManager::instance()->connection().lastError().message()));
        return false;
    }
    const QDBusConnection connection = ServiceManager::instance()->connection();
    const QDBusReply<bool> owned = connection.interface()->isServiceRegistered(QLatin1String(kServiceName));
    if (owned.isValid() && !owned.value()) {
        fail(transportProblem(mBus, QStringLiteral("org.freedesktop.DBus.Error.ServiceUnknown"), QString()));
        return false;
    }
    mProxy = new MediaServer2(ClientInstance, QCoreApplication::instance());
    mValues = new DataValuesClient(connection, QCoreApplication::instance());
    mPublishers = new DataPublisherClient(connection, QCoreApplication::instance());
    return true;
}

int MediaCtl::failCall(const QString& what, const QString& errorName, const QString& text, int timeoutMs) const
{
    if (isTimeout(errorName)) {
        say(stderr, QStringLiteral("cabin-mediactl: %1: no answer within %2 ms (cabin-media-server is busy or stuck: see its log)")
                        .arg(what).arg(timeoutMs));
        return TimedOut;
    }
    const QString problem = transportProblem(mBus, errorName, what);
    return fail(problem.isEmpty() ? what + QStringLiteral(": ") + text : problem);
}

// The answer of a bool request, or the failure that kept it from arriving. A remote error's
// text starts with the D-Bus error's name.
int MediaCtl::answerOf(bool answer, const ServiceCallContext& context)
{
    const int timeoutMs = mProxy->timeout(context.method());
    if (context.error() == ServiceCallContext::Timeout)
        return failCall(context.method(), QStringLiteral("org.freedesktop.DBus.Error.NoReply"), QString(), timeoutMs);
    if (context.error() == ServiceCallContext::RemoteError)
        return failCall(context.method(), context.errorMessage().section(QStringLiteral(": "), 0, 0), context.errorMessage(), timeoutMs);
    if (context.error() != ServiceCallContext::NoError)
        return failCall(context.method(), QString(), context.errorMessage(), timeoutMs);
    say(stdout, answer ? QStringLiteral("true") : QStringLiteral("false"));
    return answer ? True : False;
}

int MediaCtl::load(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("load"), QStringLiteral("Load an item (URL) and the item expected next. On a terminal, one line\n"
                                                               "shows the server state and how much is buffered until the item is\n"
                                                               "Loaded, plays, or fails (exit status 1)."));
    line.addArgument(QStringLiteral("URL"), QStringLiteral("Address of the item (not needed with --json)."));
    line.addOptions(ItemOptions::options());
    line.addOptions({{QStringLiteral("quiet"), QStringLiteral("Print nothing: the exit status answers.")}});
    line.setNotes(QLatin1Char('\n') + ItemOptions::keysHelp() + stateNamesHelp());
    int status = Failure;
    if (!line.parse(args, 0, 1, &status))
        return status;
    if (line.arguments().isEmpty() && !line.isSet(QStringLiteral("json")))
        return line.fail(QStringLiteral("give a URL or --json TEXT"));
    QString item;
    if (!ItemOptions::itemJson(line, line.arguments().value(0), &item) || !connect())
        return Failure;
    ServiceCallContext context(ServiceCallContext::Client);
    const bool answer = mProxy->loadMedia(item, ItemOptions::onDeckJson(line), &context);
    if (line.isSet(QStringLiteral("quiet")) && context.error() == ServiceCallContext::NoError)
        return answer ? True : False;
    if (!answer || context.error() != ServiceCallContext::NoError || !isatty(STDOUT_FILENO))
        return answerOf(answer, context);
    return LoadProgress(mValues).run();
}

// play and seek: one position in milliseconds, which the request carries as an int.
int MediaCtl::positionRequest(SubcommandLine* line, const QStringList& args, int minArguments,
                              bool (MediaServer2::*call)(const int&, ServiceCallContext*))
{
    int status = Failure;
    if (!line->parse(args, minArguments, 1, &status))
        return status;
    qint64 position = 0;
    if (!line->arguments().isEmpty() && !line->number(QStringLiteral("position"), line->arguments().first(), 0, INT_MAX, &position))
        return Failure;
    if (!connect())
        return Failure;
    ServiceCallContext context(ServiceCallContext::Client);
    return answerOf((mProxy->*call)(int(position), &context), context);
}

int MediaCtl::play(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("play"), QStringLiteral("Play from the position in milliseconds (default 0: the item's own start)."));
    line.addArgument(QStringLiteral("MS"), QStringLiteral("Start position in milliseconds, 0 or more."), QStringLiteral("[MS]"));
    return positionRequest(&line, args, 0, &MediaServer2::play);
}

int MediaCtl::seek(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("seek"), QStringLiteral("Seek to the position in milliseconds."));
    line.addArgument(QStringLiteral("MS"), QStringLiteral("Position in milliseconds, 0 or more."));
    return positionRequest(&line, args, 1, &MediaServer2::seek);
}

int MediaCtl::simpleRequest(const QString& name, const QString& description, const QStringList& args,
                            bool (MediaServer2::*call)(ServiceCallContext*))
{
    SubcommandLine line(name, description);
    int status = Failure;
    if (!line.parse(args, 0, 0, &status) || !connect())
        return status;
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
    SubcommandLine line(QStringLiteral("play-file"), QStringLiteral("Play a local media file over what plays (true: the request was taken)."));
    line.addArgument(QStringLiteral("PATH"), QStringLiteral("The file, as the server's user sees it."));
    int status = Failure;
    if (!line.parse(args, 1, 1, &status) || !connect())
        return status;
    ServiceCallContext context(ServiceCallContext::Client);
    return answerOf(mProxy->playMediaFile(line.arguments().first(), &context), context);
}

int MediaCtl::serviceStatus(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("service-status"), QStringLiteral("Print the service statistics (JSON)."));
    int status = Failure;
    if (!line.parse(args, 0, 0, &status) || !connect())
        return status;
    ServiceCallContext context(ServiceCallContext::Client);
    context.initCall(QStringLiteral("MediaServer2"), QStringLiteral("ServiceStatus"), false, false, 0);
    if (!ServiceManager::instance()->client()->call(mProxy, &context))
        return answerOf(false, context);
    say(stdout, QString::fromUtf8(context.responseBody()));
    return True;
}
