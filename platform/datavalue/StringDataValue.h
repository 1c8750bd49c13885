#pragma once

#include "platform/datavalue/TypedDataValue.h"
#include "platform/datavalue/VariantConversion.h"

struct StringDataValueTraits
{
    static QVariant toVariant(const QString& v) { return QVariant(v); }
    static bool fromVariant(const QVariant& variant, QString* v) { return VariantConversion::toString(variant, v); }
    static QString toString(const QString& v) { return v; }
};

// A data value holding a QString (variant form "s" on the bus); see DataValue for the
// locking and broadcast rules.
class StringDataValue : public TypedDataValue<QString, StringDataValueTraits>
{
public:
    using TypedDataValue::TypedDataValue;
};
