#include "tools/mediactl/StatusMessageDecoder.h"

#include "media_server/MediaServer2DataPublisher.h"
#include "media_server/MediaServer2StatsDataPublisher.h"

#include <QDataStream>
#include <QIODevice>

namespace {

struct Kind
{
    QString name;
    quint32 messageId;
    quint32 publisherId;
    QStringList valueNames;
};

const QList<Kind>& kinds()
{
    using Media = MediaServer2DataPublisher;
    using Stats = MediaServer2StatsDataPublisher;
    static const QList<Kind> list = {
        {QStringLiteral("MediaServer2BufferStatus"), Media::kBufferStatusId, Media::kPublisherId,
         {QStringLiteral("MEDIA2_bufferProgress"), QStringLiteral("MEDIA2_downloadedBytes")}},
        {QStringLiteral("MediaServer2PlaybackStatus"), Media::kPlaybackStatusId, Media::kPublisherId,
         {QStringLiteral("MEDIA2_elapsedTime")}},
        {QStringLiteral("MediaServer2Info"), Media::kInfoId, Media::kPublisherId,
         {QStringLiteral("MEDIA2_nowPlayingTitle"), QStringLiteral("MEDIA2_serverState"), QStringLiteral("MEDIA2_streamBitRate"),
          QStringLiteral("MEDIA2_totalBytes"), QStringLiteral("MEDIA2_streamCached"), QStringLiteral("MEDIA2_playingCustomMedia")}},
        {QStringLiteral("MediaServer2NetStats"), Stats::kNetStatsId, Stats::kPublisherId, {QStringLiteral("MEDIA2_connNetStats")}},
    };
    return list;
}

const Kind* kindOf(const QString& name)
{
    for (const Kind& kind : kinds())
        if (kind.name == name)
            return &kind;
    return nullptr;
}

// The identifiers go out as QVariant(quint32); any other type is not one of our bodies.
bool isId(const QVariant& variant, quint32 id)
{
    return variant.userType() == QMetaType::UInt && variant.toUInt() == id;
}

QDataStream& bodyStream(QDataStream& stream)
{
    stream.setVersion(QDataStream::Qt_4_8);
    stream.setByteOrder(QDataStream::BigEndian);
    return stream;
}

// A string's or container's count can be no larger than the bytes that are left.
bool readCount(QDataStream& stream, quint32* count)
{
    stream >> *count;
    return stream.status() == QDataStream::Ok && *count <= quint32(stream.device()->bytesAvailable());
}

bool skipString(QDataStream& stream)
{
    quint32 bytes = 0;
    stream >> bytes;
    if (bytes == 0xFFFFFFFF)   // a null string
        return stream.status() == QDataStream::Ok;
    return stream.status() == QDataStream::Ok && stream.skipRawData(int(bytes)) == int(bytes);
}

// Walks one variant of the types our messages carry (Qt 4 type numbers: bool 1, int 2, uint 3,
// qint64 4, quint64 5, double 6, map 8, list 9, string 10; 0 is a null variant, followed by an
// empty string), refusing any other type and any count the body cannot hold.
bool skipVariant(QDataStream& stream, int depth)
{
    quint32 type = 0;
    qint8 isNull = 0;
    stream >> type >> isNull;
    static const int kScalarSizes[] = {0, 1, 4, 4, 8, 8, 8};
    if (stream.status() != QDataStream::Ok || depth > 8)
        return false;
    if (type == 0 || type == 10)
        return skipString(stream);
    if (type >= 1 && type <= 6)
        return stream.skipRawData(kScalarSizes[type]) == kScalarSizes[type];
    quint32 count = 0;
    if ((type != 8 && type != 9) || !readCount(stream, &count))
        return false;
    for (quint32 i = 0; i < count; ++i)
        if ((type == 8 && !skipString(stream)) || !skipVariant(stream, depth + 1))
            return false;
    return true;
}

} // namespace

const QStringList& StatusMessageDecoder::messageNames()
{
    static const QStringList names = [] {
        QStringList list;
        for (const Kind& kind : kinds())
            list.append(kind.name);
        return list;
    }();
    return names;
}

QStringList StatusMessageDecoder::valueNames(const QString& message)
{
    const Kind* kind = kindOf(message);
    return kind ? kind->valueNames : QStringList();
}

bool StatusMessageDecoder::decode(const QString& message, const QByteArray& body, QList<Value>* values, QString* error)
{
    const Kind* kind = kindOf(message);
    if (!kind) {
        *error = QStringLiteral("unknown message %1").arg(message);
        return false;
    }
    QVariantList variants;
    if (!readVariants(body, &variants, error))
        return false;
    if (variants.size() != kind->valueNames.size() + 2) {
        *error = QStringLiteral("%1 has %2 values, expected %3").arg(message).arg(variants.size() - 2).arg(kind->valueNames.size());
        return false;
    }
    if (!isId(variants.at(0), kind->messageId) || !isId(variants.at(1), kind->publisherId)) {
        *error = QStringLiteral("the body is not a %1 message (wrong identifiers)").arg(message);
        return false;
    }
    values->clear();
    for (int i = 0; i < kind->valueNames.size(); ++i)
        values->append({kind->valueNames.at(i), variants.at(i + 2)});
    return true;
}

// The whole body must be the header and exactly `count` variants: a short body, a corrupt
// variant and bytes left over are each refused.
bool StatusMessageDecoder::readVariants(const QByteArray& body, QVariantList* variants, QString* error)
{
    if (!isBounded(body)) {
        *error = QStringLiteral("malformed body: a value is cut short, claims more than the body holds or has a type no message carries");
        return false;
    }
    QDataStream stream(body);
    bodyStream(stream);
    qint32 zero = -1, count = -1;
    stream >> zero >> count;
    if (stream.status() != QDataStream::Ok || zero != 0 || count < 2) {
        *error = QStringLiteral("malformed body: bad header (%1 bytes)").arg(body.size());
        return false;
    }
    for (qint32 i = 0; i < count; ++i) {
        QVariant variant;
        stream >> variant;
        if (stream.status() != QDataStream::Ok) {
            *error = QStringLiteral("malformed body: variant %1 of %2 is truncated or corrupt").arg(i + 1).arg(count);
            return false;
        }
        variants->append(variant);
    }
    if (!stream.atEnd()) {
        *error = QStringLiteral("malformed body: %1 bytes after the last of %2 variants").arg(body.size() - stream.device()->pos()).arg(count);
        return false;
    }
    return true;
}

// Qt's own reader reserves room for a container's claimed size before reading its items, so a
// forged count would ask for gigabytes; this walk finds such a body before Qt reads it.
bool StatusMessageDecoder::isBounded(const QByteArray& body)
{
    QDataStream stream(body);
    bodyStream(stream);
    qint32 zero = 0, count = 0;
    stream >> zero >> count;
    for (qint32 i = 0; i < count && stream.status() == QDataStream::Ok && !stream.atEnd(); ++i)
        if (!skipVariant(stream, 0))
            return false;
    return true;
}
