#include "tools/mediactl/StatusLine.h"

#include "UI/media_server/MediaServerState.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonValue>

namespace {

// A JSON value as compact text, its strings escaped (QJsonDocument only writes containers).
QString jsonText(const QJsonValue& value)
{
    const QByteArray array = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return QString::fromUtf8(array.mid(1, array.size() - 2));
}

// The state pair by name; false unless it is two numbers the vocabulary knows (a number from a
// newer server prints as it came rather than as a name we would have to invent).
bool stateNames(const QVariant& value, QStringList* names)
{
    const QVariantList pair = value.toList();
    if (value.userType() != QMetaType::QVariantList || pair.size() != 2)
        return false;
    bool stateOk = false, errorOk = false;
    const int state = pair.at(0).toInt(&stateOk);
    const int error = pair.at(1).toInt(&errorOk);
    if (!stateOk || !errorOk || state < MediaV2::NoMedia || state > MediaV2::MediaFetchError || error < MediaV2::NoError
        || error > MediaV2::ForbiddenFetchError)
        return false;
    *names = {MediaServerUtils::nameForState(MediaV2::MediaServerState(state)),
              MediaServerUtils::nameForError(MediaV2::MediaServerError(error))};
    return true;
}

QJsonValue jsonValue(const StatusMessageDecoder::Value& value)
{
    QStringList names;
    if (value.name == QLatin1String("MEDIA2_serverState") && stateNames(value.value, &names))
        return QJsonArray::fromStringList(names);
    return QJsonValue::fromVariant(value.value);
}

QString textValue(const StatusMessageDecoder::Value& value)
{
    if (!value.value.isValid())
        return QStringLiteral("-");
    QStringList names;
    if (value.name == QLatin1String("MEDIA2_serverState") && stateNames(value.value, &names))
        return names.join(QLatin1Char(','));
    switch (value.value.userType()) {
    case QMetaType::QString:
    case QMetaType::QVariantList:
    case QMetaType::QVariantMap:
        return jsonText(jsonValue(value));
    default:
        return value.value.toString();
    }
}

} // namespace

QString StatusLine::text(const QString& message, const QList<StatusMessageDecoder::Value>& values)
{
    QString line = message;
    for (const StatusMessageDecoder::Value& value : values) {
        const QString shortName = value.name.startsWith(QLatin1String("MEDIA2_")) ? value.name.mid(7) : value.name;
        line += QLatin1Char(' ') + shortName + QLatin1Char('=') + textValue(value);
    }
    return line;
}

QString StatusLine::json(const QString& message, const QList<StatusMessageDecoder::Value>& values)
{
    QStringList members;
    for (const StatusMessageDecoder::Value& value : values)
        members.append(jsonText(value.name) + QLatin1Char(':') + jsonText(jsonValue(value)));
    return QStringLiteral("{\"name\":%1,\"values\":{%2}}").arg(jsonText(message), members.join(QLatin1Char(',')));
}
