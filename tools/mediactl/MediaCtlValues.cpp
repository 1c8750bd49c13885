// cabin-mediactl's data-value and status-message subcommands (see MediaCtl).

#include "tools/mediactl/MediaCtl.h"

#include "platform/core/SignalHandlers.h"
#include "platform/datavalue/DataValueManager.h"
#include "tools/mediactl/DataPublisherClient.h"
#include "tools/mediactl/DataValuesClient.h"
#include "tools/mediactl/MediaCtlSupport.h"
#include "tools/mediactl/StatusLine.h"
#include "tools/mediactl/StatusMessageDecoder.h"
#include "tools/mediactl/SubcommandLine.h"

#include <QCoreApplication>
#include <QEventLoop>
#include <QRegularExpression>
#include <QTimer>

#include <climits>
#include <cstdio>

using namespace MediaCtlSupport;

namespace {

// The longest wait whose milliseconds fit the timer's int.
constexpr int kMaxWaitSeconds = INT_MAX / 1000;

} // namespace

int MediaCtl::get(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("get"), QStringLiteral("Print a data value: - and exit status 1 when it has none."));
    line.addArgument(QStringLiteral("NAME"), QStringLiteral("The value's name, e.g. MEDIA2_serverState (see cabin-mediactl values)."));
    int status = Failure;
    if (!line.parse(args, 1, 1, &status) || !connect())
        return status;
    const QString name = line.arguments().first();
    bool valid = false;
    QVariant value;
    if (!mValues->get(name, &valid, &value))
        return failCall(QStringLiteral("get"), mValues->errorName(), mValues->error(), DataValuesClient::kTimeoutMs);
    say(stdout, DataValuesClient::text(name, valid, value));
    return valid ? True : False;
}

int MediaCtl::set(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("set"), QStringLiteral("Set a data value other processes may write (GUI_canUseInternet false,\n"
                                                              "LINK_linkState -1)."));
    line.addArgument(QStringLiteral("NAME"), QStringLiteral("The value's name."));
    line.addArgument(QStringLiteral("VALUE"), QStringLiteral("true/false, a number or a text."));
    int status = Failure;
    if (!line.parse(args, 2, 2, &status) || !connect())
        return status;
    if (!mValues->set(line.arguments().at(0), guessValue(line.arguments().at(1))))
        return failCall(QStringLiteral("set"), mValues->errorName(), mValues->error(), DataValuesClient::kTimeoutMs);
    return True;
}

int MediaCtl::values(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("values"), QStringLiteral("Print every data value, one per line: NAME, a tab, the value (- for none)."));
    int status = Failure;
    if (!line.parse(args, 0, 0, &status) || !connect())
        return status;
    QStringList names;
    if (!mValues->list(&names))
        return failCall(QStringLiteral("values"), mValues->errorName(), mValues->error(), DataValuesClient::kTimeoutMs);
    for (const QString& name : names) {
        bool valid = false;
        QVariant value;
        if (!mValues->get(name, &valid, &value))
            return failCall(QStringLiteral("values"), mValues->errorName(), mValues->error(), DataValuesClient::kTimeoutMs);
        say(stdout, name + QLatin1Char('\t') + DataValuesClient::text(name, valid, value));
    }
    return True;
}

int MediaCtl::wait(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("wait"), QStringLiteral("Wait until a data value's text, as get prints it, matches REGEX; print it.\n"
                                                               "Exit status 3 when the time runs out."));
    line.addArgument(QStringLiteral("NAME"), QStringLiteral("The value's name."));
    line.addArgument(QStringLiteral("REGEX"), QStringLiteral("A regular expression (^-$: the value has none)."));
    line.addOptions({{QStringLiteral("timeout"), QStringLiteral("Give up after S seconds (default 10)."), QStringLiteral("S"), QStringLiteral("10")}});
    line.setNotes(QStringLiteral("\nMEDIA2_serverState prints as \"6,0 (Playing, NoError)\": state, error (names).\n")
                  + stateNamesHelp() + QStringLiteral("\nData values of this version of the server:\n")
                  + wrapped(DataValueManager::instance()->names()));
    int status = Failure;
    if (!line.parse(args, 2, 2, &status))
        return status;
    const QRegularExpression pattern(line.arguments().at(1));
    if (!pattern.isValid())
        return line.fail(QStringLiteral("REGEX \"%1\": %2").arg(pattern.pattern(), pattern.errorString()));
    bool ok = false;
    const double seconds = line.value(QStringLiteral("timeout")).toDouble(&ok);
    if (!ok || seconds < 0 || seconds > kMaxWaitSeconds)
        return line.fail(QStringLiteral("--timeout %1 is not a number of seconds from 0 to %2").arg(line.value(QStringLiteral("timeout"))).arg(kMaxWaitSeconds));
    if (!connect())
        return Failure;
    return waitFor(line.arguments().at(0), pattern, int(seconds * 1000));
}

// Subscribes first, then reads the current value, so a change in between is not missed.
int MediaCtl::waitFor(const QString& name, const QRegularExpression& pattern, int timeoutMs)
{
    if (!mValues->subscribe())
        return fail(QStringLiteral("wait: ") + mValues->error());
    QEventLoop loop;
    int status = TimedOut;
    auto check = [&](const QString& changedName, bool valid, const QVariant& value) {
        const QString text = DataValuesClient::text(changedName, valid, value);
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
        return failCall(QStringLiteral("wait"), mValues->errorName(), mValues->error(), DataValuesClient::kTimeoutMs);
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
    SubcommandLine line(QStringLiteral("status"), QStringLiteral("Print every status message as the server assembles it now, one per line:\n"
                                                                 "the state and error, title, position (elapsedTime, ms), buffer progress\n"
                                                                 "and whether the item is cached (\"-\" for a value that has none)."));
    line.addOptions({jsonOption()});
    int status = Failure;
    if (!line.parse(args, 0, 0, &status) || !connect())
        return status;
    for (const QString& message : StatusMessageDecoder::messageNames()) {
        QByteArray body;
        if (!mPublishers->assemble(message, &body))
            return failCall(QStringLiteral("status"), mPublishers->errorName(), mPublishers->error(), DataPublisherClient::kTimeoutMs);
        if (!printStatus(QStringLiteral("status"), message, body, line.isSet(QStringLiteral("json"))))
            return Failure;
    }
    return True;
}

int MediaCtl::watch(const QStringList& args)
{
    SubcommandLine line(QStringLiteral("watch"), QStringLiteral("Print status messages as they arrive, one per line, until SIGINT or SIGTERM\n"
                                                                "(\"-\" for a value that has none)."));
    line.addArgument(QStringLiteral("NAME"), QStringLiteral("Messages to show (default all): ") + StatusMessageDecoder::messageNames().join(QStringLiteral(", ")),
                     QStringLiteral("[NAME...]"));
    line.addOptions({jsonOption(), {QStringLiteral("count"), QStringLiteral("Exit after N messages."), QStringLiteral("N")}});
    int status = Failure;
    if (!line.parse(args, 0, INT_MAX, &status))
        return status;
    const QStringList names = line.arguments().isEmpty() ? StatusMessageDecoder::messageNames() : line.arguments();
    for (const QString& name : names)
        if (!StatusMessageDecoder::messageNames().contains(name))
            return line.fail(QStringLiteral("unknown message \"%1\" (see cabin-mediactl watch --help)").arg(name));
    qint64 count = 0;
    if (line.isSet(QStringLiteral("count")) && !line.number(QStringLiteral("--count"), line.value(QStringLiteral("count")), 1, INT_MAX, &count))
        return Failure;
    if (!connect())
        return Failure;
    if (!mPublishers->subscribe())
        return fail(QStringLiteral("watch: ") + mPublishers->error());
    return watchUntilDone(names, line.isSet(QStringLiteral("json")), int(count));
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
