#pragma once

#include "platform/datavalue/TypedDataValue.h"
#include "platform/datavalue/VariantConversion.h"

struct BoolDataValueTraits
{
    static QVariant toVariant(bool v) { return QVariant(v); }
    static bool fromVariant(const QVariant& variant, bool* v) { return VariantConversion::toBool(variant, v); }
    static QString toString(bool v) { return (v ? QStringLiteral("true") : QStringLiteral("false")); }
};

// A data value holding a bool (variant form "b" on the bus); see DataValue for the
// locking and broadcast rules. A boolean always has a default and is valid from the start:
// "not set yet" reads as the default, never as "no value".
class BoolDataValue : public TypedDataValue<bool, BoolDataValueTraits>
{
public:
    BoolDataValue(const QString& name, bool externallyWritable, int broadcastPolicy, bool defaultValue)
        : TypedDataValue(name, externallyWritable, broadcastPolicy, defaultValue, true)
    {
    }
};
