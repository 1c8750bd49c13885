#pragma once

#include "platform/datavalue/TypedDataValue.h"
#include "platform/datavalue/VariantConversion.h"

struct IntDataValueTraits
{
    static QVariant toVariant(int v) { return QVariant(v); }
    static bool fromVariant(const QVariant& variant, int* v) { return VariantConversion::toInt(variant, v); }
    static QString toString(int v) { return QString::number(v); }
};

// A data value holding a int (variant form "i" on the bus); see DataValue for the
// locking and broadcast rules.
class IntDataValue : public TypedDataValue<int, IntDataValueTraits>
{
public:
    using TypedDataValue::TypedDataValue;
};
