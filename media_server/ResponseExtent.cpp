#include "media_server/ResponseExtent.h"

#include <QRegularExpression>

namespace MediaV2 {

namespace {

// -1 for a header that is absent or not a plain non-negative number.
qint64 byteCount(const QByteArray& text)
{
    bool ok = false;
    const qint64 value = text.trimmed().toLongLong(&ok);
    return (ok && value >= 0) ? value : -1;
}

} // namespace

ResponseExtent ResponseExtent::of(qint64 requestedOffset, int statusCode, const QByteArray& contentLength,
                                  const QByteArray& contentRange)
{
    ResponseExtent extent;
    const qint64 length = byteCount(contentLength);
    if (statusCode != 206) {
        extent.total = qMax<qint64>(length, 0);
        return extent;
    }
    extent.bodyStart = requestedOffset;
    static const QRegularExpression range(QStringLiteral("^\\s*bytes\\s+(\\d+)-(\\d+)/(\\d+|\\*)\\s*$"),
                                          QRegularExpression::CaseInsensitiveOption);
    const QRegularExpressionMatch match = range.match(QString::fromLatin1(contentRange));
    if (match.hasMatch())
        extent.bodyStart = match.captured(1).toLongLong();
    if (match.hasMatch() && match.captured(3) != QLatin1String("*"))
        extent.total = match.captured(3).toLongLong();
    else if (length >= 0)
        extent.total = extent.bodyStart + length;
    return extent;
}

} // namespace MediaV2
