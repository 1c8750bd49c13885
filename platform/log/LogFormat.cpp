#include "platform/log/LogFormat.h"

#include <QDateTime>

namespace {

const char* journalPrefix(LogRecord::Level level)
{
    switch (level) {
    case LogRecord::Info: return "<6>";
    case LogRecord::Warn: return "<4>";
    case LogRecord::Error: return "<3>";
    }
    return "<3>";
}

bool underJournal()
{
    static const bool journal = qEnvironmentVariableIsSet("JOURNAL_STREAM");
    return journal;
}

QString escapedControl(QChar c)
{
    switch (c.unicode()) {
    case '\n': return QStringLiteral("\\n");
    case '\r': return QStringLiteral("\\r");
    case '\t': return QStringLiteral("\\t");
    }
    if (c.unicode() < 0x100)
        return QStringLiteral("\\x%1").arg(c.unicode(), 2, 16, QLatin1Char('0'));
    return QStringLiteral("\\u%1").arg(c.unicode(), 4, 16, QLatin1Char('0'));
}

// Besides the C0 and C1 controls, the Unicode line and paragraph separators end a line for
// some readers of the journal.
bool isControl(QChar c)
{
    return c.category() == QChar::Other_Control || c.unicode() == 0x2028 || c.unicode() == 0x2029;
}

} // namespace

QString LogFormat::escapeControls(const QString& text)
{
    QString escaped;
    escaped.reserve(text.size());
    for (QChar c : text) {
        if (isControl(c))
            escaped += escapedControl(c);
        else
            escaped += c;
    }
    return escaped;
}

std::string LogFormat::line(const LogRecord& record)
{
    const QString start = underJournal()
        ? QString::fromLatin1(journalPrefix(record.level))
        : QDateTime::currentDateTimeUtc().toString(Qt::ISODateWithMs) + QLatin1Char(' ');
    // Some messages end in their own newline (Qt's); that one is the line's end, not content.
    QString text = record.text();
    while (text.endsWith(QLatin1Char('\n')))
        text.chop(1);
    return (start + QString::fromLatin1(LogRecord::levelName(record.level)) + QStringLiteral(" [")
            + escapeControls(record.threadName) + QStringLiteral("] ") + escapeControls(text) + QLatin1Char('\n'))
        .toStdString();
}
