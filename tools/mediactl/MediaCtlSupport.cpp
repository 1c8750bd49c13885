#include "tools/mediactl/MediaCtlSupport.h"

#include "UI/media_server/MediaServerState.h"
#include "tools/mediactl/MediaCtl.h"

#include <QStringList>

namespace MediaCtlSupport {

namespace {

QString dbusError(const char* name)
{
    return QStringLiteral("org.freedesktop.DBus.Error.") + QLatin1String(name);
}

} // namespace

void say(FILE* stream, const QString& text)
{
    std::fputs((text + QLatin1Char('\n')).toLocal8Bit().constData(), stream);
}

int fail(const QString& text)
{
    say(stderr, QStringLiteral("cabin-mediactl: ") + text);
    return MediaCtl::Failure;
}

QCommandLineOption jsonOption()
{
    return {QStringLiteral("json"), QStringLiteral("One JSON object per line: {\"name\":...,\"values\":{...}}, null for no value.")};
}

QVariant guessValue(const QString& text)
{
    if (text == QLatin1String("true") || text == QLatin1String("false"))
        return text == QLatin1String("true");
    bool ok = false;
    const int number = text.toInt(&ok);
    if (ok)
        return number;
    const double real = text.toDouble(&ok);
    return ok ? QVariant(real) : QVariant(text);
}

QString busName(const QString& bus)
{
    if (bus == QLatin1String("session") || bus == QLatin1String("system"))
        return QStringLiteral("the %1 bus").arg(bus);
    return QStringLiteral("the bus at ") + bus;
}

QString transportProblem(const QString& bus, const QString& errorName, const QString& what)
{
    const QString where = busName(bus);
    if (errorName == dbusError("ServiceUnknown") || errorName == dbusError("NameHasNoOwner"))
        return QStringLiteral("no cabin-media-server on %1 (is it running? --bus selects another bus)").arg(where);
    if (errorName == dbusError("AccessDenied"))
        return QStringLiteral("%1 does not let this user call cabin-media-server (its policy admits the group "
                              "cabin-media-clients; --bus selects another bus)").arg(where);
    if (errorName == dbusError("Disconnected") || errorName == dbusError("NoServer"))
        return QStringLiteral("lost the connection to %1 (is it still running? --bus selects another bus)").arg(where);
    if (errorName == dbusError("UnknownMethod") || errorName == dbusError("UnknownObject") || errorName == dbusError("UnknownInterface"))
        return QStringLiteral("the cabin-media-server on %1 does not offer %2 (is it another version than this "
                              "cabin-mediactl?)").arg(where, what);
    return QString();
}

bool isTimeout(const QString& errorName)
{
    return errorName == dbusError("NoReply") || errorName == dbusError("Timeout");
}

QString wrapped(const QStringList& items)
{
    QString text, line = QStringLiteral(" ");
    for (int i = 0; i < items.size(); ++i) {
        const QString item = items.at(i) + (i + 1 < items.size() ? QStringLiteral(",") : QString());
        if (line.size() + 1 + item.size() > 78) {
            text += line + QLatin1Char('\n');
            line = QStringLiteral(" ");
        }
        line += QLatin1Char(' ') + item;
    }
    return text + line + QLatin1Char('\n');
}

QString stateNamesHelp()
{
    QStringList states, errors;
    for (int state = MediaV2::NoMedia; state <= MediaV2::MediaFetchError; ++state)
        states.append(QStringLiteral("%1 %2").arg(state).arg(MediaServerUtils::nameForState(MediaV2::MediaServerState(state))));
    for (int error = MediaV2::NoError; error <= MediaV2::ForbiddenFetchError; ++error)
        errors.append(QStringLiteral("%1 %2").arg(error).arg(MediaServerUtils::nameForError(MediaV2::MediaServerError(error))));
    return QStringLiteral("\nServer states (MEDIA2_serverState's first number):\n") + wrapped(states)
        + QStringLiteral("Server errors (its second number):\n") + wrapped(errors);
}

} // namespace MediaCtlSupport
