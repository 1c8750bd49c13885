#include "platform/config/ConfigText.h"

#include <cmath>

namespace ConfigText {

bool parseInt(const QString& text, int* value)
{
    bool ok = false;
    int parsed = text.trimmed().toInt(&ok);
    if (ok && value)
        *value = parsed;
    return ok;
}

bool parseUnsignedInt(const QString& text, uint* value)
{
    bool ok = false;
    uint parsed = text.trimmed().toUInt(&ok);
    if (ok && value)
        *value = parsed;
    return ok;
}

bool parseBool(const QString& text, bool* value)
{
    const QString t = text.trimmed().toLower();
    bool parsed;
    if (t == QLatin1String("true") || t == QLatin1String("1") || t == QLatin1String("yes") || t == QLatin1String("on"))
        parsed = true;
    else if (t == QLatin1String("false") || t == QLatin1String("0") || t == QLatin1String("no") || t == QLatin1String("off"))
        parsed = false;
    else
        return false;
    if (value)
        *value = parsed;
    return true;
}

bool parseReal(const QString& text, double* value)
{
    bool ok = false;
    double parsed = text.trimmed().toDouble(&ok);
    if (!ok || !std::isfinite(parsed))
        return false;
    if (value)
        *value = parsed;
    return true;
}

QString formatBool(bool value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

QString formatReal(double value)
{
    QString text = QString::number(value, 'g', 15);
    if (!text.contains(QLatin1Char('.')) && !text.contains(QLatin1Char('e')))
        text += QStringLiteral(".0");
    return text;
}

} // namespace ConfigText
