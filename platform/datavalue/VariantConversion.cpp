#include "platform/datavalue/VariantConversion.h"

#include <cmath>
#include <limits>

namespace VariantConversion {

namespace {

bool isText(const QVariant& value)
{
    return value.userType() == QMetaType::QString || value.userType() == QMetaType::QByteArray;
}

bool isNumber(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::Int:
    case QMetaType::UInt:
    case QMetaType::LongLong:
    case QMetaType::ULongLong:
    case QMetaType::Short:
    case QMetaType::UShort:
    case QMetaType::UChar:
    case QMetaType::Double:
    case QMetaType::Float:
        return true;
    default:
        return false;
    }
}

// The value as a finite double, from a number or from text that is a number.
bool asDouble(const QVariant& value, double* result)
{
    bool ok = false;
    double parsed = 0.0;
    if (isNumber(value))
        parsed = value.toDouble(&ok);
    else if (isText(value))
        parsed = value.toString().trimmed().toDouble(&ok);
    if (!ok || !std::isfinite(parsed))
        return false;
    *result = parsed;
    return true;
}

// Integers go through their own 64-bit form: a double cannot hold every 64-bit value.
bool asWholeNumber(const QVariant& value, qint64* signedResult, quint64* unsignedResult, bool* isUnsigned)
{
    bool ok = false;
    *isUnsigned = value.userType() == QMetaType::ULongLong;
    if (*isUnsigned)
        *unsignedResult = value.toULongLong(&ok);
    else if (isNumber(value) && value.userType() != QMetaType::Double && value.userType() != QMetaType::Float)
        *signedResult = value.toLongLong(&ok);
    else if (isText(value)) {
        const QString text = value.toString().trimmed();
        *signedResult = text.toLongLong(&ok);
        if (!ok) {
            *unsignedResult = text.toULongLong(&ok);
            *isUnsigned = ok;
        }
    } else {
        double d = 0.0;
        if (!asDouble(value, &d) || d != std::floor(d) || std::fabs(d) > 9007199254740992.0)
            return false;
        *signedResult = qint64(d);
        ok = true;
    }
    return ok;
}

} // namespace

bool toInt(const QVariant& value, int* result)
{
    qint64 s = 0;
    quint64 u = 0;
    bool isUnsigned = false;
    if (!asWholeNumber(value, &s, &u, &isUnsigned))
        return false;
    if (isUnsigned) {
        if (u > quint64(std::numeric_limits<int>::max()))
            return false;
        s = qint64(u);
    }
    if (s < std::numeric_limits<int>::min() || s > std::numeric_limits<int>::max())
        return false;
    *result = int(s);
    return true;
}

bool toUInt64(const QVariant& value, quint64* result)
{
    qint64 s = 0;
    quint64 u = 0;
    bool isUnsigned = false;
    if (!asWholeNumber(value, &s, &u, &isUnsigned))
        return false;
    if (!isUnsigned) {
        if (s < 0)
            return false;
        u = quint64(s);
    }
    *result = u;
    return true;
}

bool toDouble(const QVariant& value, double* result)
{
    return asDouble(value, result);
}

// A number is refused: a switch that arrives as an int was sent with the wrong type, and
// taking 0 and 1 would only hide that until the sender sends 2.
bool toBool(const QVariant& value, bool* result)
{
    if (value.userType() == QMetaType::Bool) {
        *result = value.toBool();
        return true;
    }
    const QString text = isText(value) ? value.toString().trimmed().toLower() : QString();
    if (text == QLatin1String("true") || text == QLatin1String("1"))
        *result = true;
    else if (text == QLatin1String("false") || text == QLatin1String("0"))
        *result = false;
    else
        return false;
    return true;
}

bool toString(const QVariant& value, QString* result)
{
    if (!isText(value))
        return false;
    *result = value.toString();
    return true;
}

} // namespace VariantConversion
