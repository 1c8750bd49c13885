#include "platform/core/TJson.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QJsonParseError>
#include <QJsonValue>

namespace TJson {

namespace {

const QByteArray kUtf8ByteOrderMark("\xEF\xBB\xBF");

QVariant toVariant(const QJsonValue& value);

QVariantMap toVariantMap(const QJsonObject& object)
{
    QVariantMap map;
    for (auto it = object.begin(); it != object.end(); ++it)
        map.insert(it.key(), toVariant(it.value()));
    return map;
}

QVariantList toVariantList(const QJsonArray& array)
{
    QVariantList list;
    list.reserve(array.size());
    for (const QJsonValue& element : array)
        list.append(toVariant(element));
    return list;
}

// Qt's own toVariant turns null into a std::nullptr_t variant, which is valid and converts to
// nothing useful; callers here test isValid(), so null becomes an invalid QVariant instead. The
// containers are converted here too because theirs would leave such nulls inside.
QVariant toVariant(const QJsonValue& value)
{
    switch (value.type()) {
    case QJsonValue::Object:
        return toVariantMap(value.toObject());
    case QJsonValue::Array:
        return toVariantList(value.toArray());
    case QJsonValue::Null:
    case QJsonValue::Undefined:
        return QVariant();
    default:
        return value.toVariant();
    }
}

QByteArray withoutByteOrderMark(const QByteArray& json)
{
    return json.startsWith(kUtf8ByteOrderMark) ? json.mid(kUtf8ByteOrderMark.size()) : json;
}

bool parseDocument(const QByteArray& json, QVariant* value)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError)
        return false;
    *value = document.isObject() ? QVariant(toVariantMap(document.object()))
                                 : QVariant(toVariantList(document.array()));
    return true;
}

// QJsonDocument refuses a scalar document, so the text is parsed as the only element of an
// array. A text like "1,2" also parses once wrapped; demanding exactly one element keeps it out.
bool parseScalar(const QByteArray& json, QVariant* value)
{
    QVariant wrapper;
    if (!parseDocument('[' + json + ']', &wrapper))
        return false;
    const QVariantList elements = wrapper.toList();
    if (elements.size() != 1)
        return false;
    *value = elements.first();
    return true;
}

// QJsonDocument cannot hold a scalar either: it is written as the only element of a compact
// array and the brackets are cut off.
QByteArray serializeScalar(const QJsonValue& value)
{
    const QByteArray wrapped = QJsonDocument(QJsonArray{value}).toJson(QJsonDocument::Compact);
    return wrapped.mid(1, wrapped.size() - 2);
}

} // namespace

QVariant Parser::parse(const QByteArray& json, bool* ok, bool allowScalar)
{
    const QByteArray text = withoutByteOrderMark(json);
    QVariant value;
    const bool parsed = parseDocument(text, &value) || (allowScalar && parseScalar(text, &value));
    if (ok)
        *ok = parsed;
    return parsed ? value : QVariant();
}

QByteArray Serializer::serialize(const QVariant& value, bool indented)
{
    const QJsonDocument::JsonFormat format = indented ? QJsonDocument::Indented : QJsonDocument::Compact;
    const QJsonValue json = QJsonValue::fromVariant(value);
    if (json.isObject())
        return QJsonDocument(json.toObject()).toJson(format);
    if (json.isArray())
        return QJsonDocument(json.toArray()).toJson(format);
    return serializeScalar(json);
}

} // namespace TJson
