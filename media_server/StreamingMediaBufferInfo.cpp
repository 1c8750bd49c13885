#include "media_server/StreamingMediaBufferInfo.h"


#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

namespace MediaV2 {

namespace {

// A JSON number holds integers exactly up to 2^53: far beyond any media file.
bool readCount(const QJsonObject& object, const char* name, qint64* count)
{
    const QJsonValue value = object.value(QLatin1String(name));
    if (!value.isDouble() || value.toDouble() != double(value.toInteger()) || value.toInteger() < 0)
        return false;
    *count = value.toInteger();
    return true;
}

bool readString(const QJsonObject& object, const char* name, QString* text)
{
    const QJsonValue value = object.value(QLatin1String(name));
    *text = value.toString();
    return value.isString();
}

// Why the members cannot describe a data file; empty when they can.
QString membersProblem(const QJsonObject& object, StreamingMediaBufferInfo* info)
{
    if (!object.value(QLatin1String("complete")).isBool())
        return QStringLiteral("\"complete\" is missing or not true/false");
    info->complete = object.value(QLatin1String("complete")).toBool();
    if (!readCount(object, "written", &info->written) || !readCount(object, "length", &info->length))
        return QStringLiteral("\"written\" or \"length\" is missing or not a count of bytes");
    if (!readString(object, "cachekey", &info->cachekey) || !readString(object, "url", &info->url))
        return QStringLiteral("\"cachekey\" or \"url\" is missing or not a string");
    if (info->length > 0 && info->written > info->length)
        return QStringLiteral("it claims %1 bytes written of %2").arg(info->written).arg(info->length);
    if (info->complete && info->written != info->length)
        return QStringLiteral("it is complete with %1 bytes written of %2").arg(info->written).arg(info->length);
    return QString();
}

} // namespace

QByteArray StreamingMediaBufferInfo::toJson() const
{
    const QJsonObject object{{"complete", complete}, {"written", written}, {"length", length},
                             {"cachekey", cachekey}, {"url", url}};
    return QJsonDocument(object).toJson(QJsonDocument::Compact);
}

StreamingMediaBufferInfo::Read StreamingMediaBufferInfo::parse(const QByteArray& json, const QString& key,
                                                               StreamingMediaBufferInfo* info, QString* problem)
{
    QJsonParseError error;
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (!document.isObject()) {
        *problem = error.error != QJsonParseError::NoError ? QStringLiteral("not JSON (%1)").arg(error.errorString())
                                                           : QStringLiteral("not a JSON object");
        return Read::Damaged;
    }
    StreamingMediaBufferInfo parsed;
    *problem = membersProblem(document.object(), &parsed);
    if (problem->isEmpty() && parsed.cachekey != key)
        *problem = QStringLiteral("it belongs to the cache key \"%1\"").arg(parsed.cachekey.left(200));
    if (!problem->isEmpty())
        return Read::Damaged;
    *info = parsed;
    return Read::Valid;
}

StreamingMediaBufferInfo::Read StreamingMediaBufferInfo::read(const QString& path, const QString& key,
                                                              StreamingMediaBufferInfo* info, QString* problem)
{
    QFile file(path);
    if (!file.exists())
        return Read::Absent;
    if (!file.open(QIODevice::ReadOnly)) {
        *problem = QStringLiteral("unreadable (%1)").arg(file.errorString());
        return Read::Damaged;
    }
    // An info file is a few hundred bytes; anything far larger is not one.
    constexpr qint64 kMaxInfoBytes = 64 * 1024;
    return parse(file.read(kMaxInfoBytes), key, info, problem);
}

} // namespace MediaV2
