#pragma once

#include <QString>

#include <algorithm>

// Whole numbers typed at a shell, read alike by every tool, so that "-5", "soon" and
// "99999999999" are each refused with the reason instead of being read as 0 or cut to 32 bits.
//
// Thread: any; stateless.
namespace ShellNumber {

// Empty when `text` is a whole number from min to max (then stored in *value); else why not,
// quoting the text: "-5 is negative", "\"soon\" is not a whole number",
// "99999999999 is out of range (0 to 2147483647)".
inline QString problem(const QString& text, qint64 min, qint64 max, qint64* value)
{
    bool ok = false;
    const qint64 number = text.toLongLong(&ok);
    const bool negative = text.startsWith(QLatin1Char('-'));
    const QString digits = negative ? text.mid(1) : text;
    // Too long for 64 bits is still a number, only one out of range.
    const bool wholeNumber = ok || (!digits.isEmpty() && std::all_of(digits.cbegin(), digits.cend(), [](QChar c) { return c.isDigit(); }));
    if (!wholeNumber)
        return QStringLiteral("\"%1\" is not a whole number").arg(text);
    if (negative && min >= 0)
        return text + QStringLiteral(" is negative");
    if (!ok || number < min || number > max)
        return QStringLiteral("%1 is out of range (%2 to %3)").arg(text).arg(min).arg(max);
    *value = number;
    return QString();
}

} // namespace ShellNumber
