#include "platform/net/PlaylistParser.h"

#include <QRegularExpression>
#include <QStringList>

PlaylistParser::Kind PlaylistParser::kindOf(const QUrl& url)
{
    const QString path = url.path().toLower();
    if (path.endsWith(QLatin1String(".pls")))
        return Pls;
    if (path.endsWith(QLatin1String(".m3u")) || path.endsWith(QLatin1String(".m3u8")))
        return M3u;
    return NotAPlaylist;
}

namespace {

// The digits of N without leading zeros. N is compared as text rather than converted, because
// a number too long for an int would otherwise convert to 0 and pass for the lowest.
QString significantDigits(const QString& digits)
{
    qsizetype zeros = 0;
    while (zeros < digits.size() - 1 && digits.at(zeros) == QLatin1Char('0'))
        ++zeros;
    return digits.mid(zeros);
}

bool isLowerNumber(const QString& digits, const QString& than)
{
    return digits.size() != than.size() ? digits.size() < than.size() : digits < than;
}

} // namespace

QString PlaylistParser::firstEntry(const QByteArray& playlist, Kind kind)
{
    const QStringList lines = QString::fromUtf8(playlist).split(QRegularExpression(QStringLiteral("[\r\n]+")), Qt::SkipEmptyParts);
    static const QRegularExpression plsEntry(QStringLiteral("^\\s*File(\\d+)\\s*=\\s*(.+)$"), QRegularExpression::CaseInsensitiveOption);
    QString lowest;
    QString entry;
    for (const QString& raw : lines) {
        const QString line = raw.trimmed();
        // A line of spaces is as blank as an empty one, which the split already dropped.
        if (line.isEmpty())
            continue;
        if (kind == M3u) {
            if (!line.startsWith(QLatin1Char('#')))
                return line;
            continue;
        }
        const QRegularExpressionMatch match = plsEntry.match(line);
        const QString number = significantDigits(match.captured(1));
        if (match.hasMatch() && (lowest.isEmpty() || isLowerNumber(number, lowest))) {
            lowest = number;
            entry = match.captured(2).trimmed();
        }
    }
    return entry;
}
