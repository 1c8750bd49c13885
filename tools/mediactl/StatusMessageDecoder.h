#pragma once

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>
#include <QVariant>

// Reads the body of a status message the server publishes (MediaServer2BufferStatus,
// MediaServer2PlaybackStatus, MediaServer2Info, MediaServer2NetStats) back into its named
// values. A body is a QDataStream (version Qt_4_8, big-endian): qint32 0, qint32 count, then
// `count` variants: the message id, the publisher id and one variant per value, a null variant
// for a value that has none. The decoder knows each message's id and value names, so a body
// that belongs to another message, or carries more or fewer values, is refused.
//
// Thread: any; stateless. Failure: decode() returns false with one line saying why; no input,
// however truncated or forged, makes it crash or read past the body.
class StatusMessageDecoder
{
public:
    struct Value
    {
        QString name;    // the data value's name, e.g. "MEDIA2_serverState"
        QVariant value;  // null when the value had none
    };

    // The four messages, in the order `status` prints them.
    static const QStringList& messageNames();
    // The value names of a message, in body order; empty for an unknown message.
    static QStringList valueNames(const QString& message);

    static bool decode(const QString& message, const QByteArray& body, QList<Value>* values, QString* error);

private:
    static bool readVariants(const QByteArray& body, QVariantList* variants, QString* error);
    static bool isBounded(const QByteArray& body);
};
