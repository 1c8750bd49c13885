// Fuzz target: hostile bytes as a fetched station playlist, through PlaylistParser::firstEntry()
// for each kind. Beyond memory errors and undefined behaviour, which the sanitizers catch: the
// answer is "" or an entry the text lists, trimmed, on one line: for M3U the first line that is
// not a comment, for PLS the value of the FileN entry with the lowest N, read here the plainest
// way (decimal digits, compared by value however many there are; the first of equal Ns).

#include "fuzz/FuzzCheck.h"
#include "platform/net/PlaylistParser.h"

#include <QStringList>

namespace {

QStringList linesOf(const QByteArray& playlist)
{
    QString text = QString::fromUtf8(playlist);
    text.replace(QLatin1Char('\r'), QLatin1Char('\n'));
    QStringList lines;
    for (const QString& line : text.split(QLatin1Char('\n')))
        lines.append(line.trimmed());
    return lines;
}

QString firstM3uEntry(const QStringList& lines)
{
    for (const QString& line : lines)
        if (!line.isEmpty() && !line.startsWith(QLatin1Char('#')))
            return line;
    return QString();
}

qsizetype skipSpaces(const QString& line, qsizetype at)
{
    while (at < line.size() && line.at(at).isSpace())
        ++at;
    return at;
}

// "File<digits>=<value>": the digits without leading zeros, and the value; false for any other line.
bool plsEntry(const QString& line, QString* number, QString* value)
{
    if (line.left(4).compare(QLatin1String("file"), Qt::CaseInsensitive) != 0)
        return false;
    qsizetype at = 4;
    while (at < line.size() && line.at(at) >= QLatin1Char('0') && line.at(at) <= QLatin1Char('9'))
        ++at;
    if (at == 4)
        return false;
    *number = line.mid(4, at - 4);
    while (number->size() > 1 && number->startsWith(QLatin1Char('0')))
        number->remove(0, 1);
    at = skipSpaces(line, at);
    if (at >= line.size() || line.at(at) != QLatin1Char('='))
        return false;
    *value = line.mid(skipSpaces(line, at + 1)).trimmed();
    return !value->isEmpty();
}

bool isLower(const QString& a, const QString& b)
{
    return a.size() != b.size() ? a.size() < b.size() : a < b;
}

QString firstPlsEntry(const QStringList& lines)
{
    QString lowest;
    QString entry;
    for (const QString& line : lines) {
        QString number;
        QString value;
        if (plsEntry(line, &number, &value) && (lowest.isEmpty() || isLower(number, lowest))) {
            lowest = number;
            entry = value;
        }
    }
    return entry;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    const QByteArray playlist(reinterpret_cast<const char*>(data), qsizetype(size));
    const QStringList lines = linesOf(playlist);
    const QString m3u = PlaylistParser::firstEntry(playlist, PlaylistParser::M3u);
    fuzzCheck(m3u == firstM3uEntry(lines), "M3U: not the first line that is not a comment");
    const QString pls = PlaylistParser::firstEntry(playlist, PlaylistParser::Pls);
    fuzzCheck(pls == firstPlsEntry(lines), "PLS: not the value of the entry with the lowest number");
    fuzzCheck(PlaylistParser::firstEntry(playlist, PlaylistParser::NotAPlaylist) == pls, "an unknown kind is not read as PLS");
    return 0;
}
