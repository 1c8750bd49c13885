#pragma once

#include "platform/datavalue/TypedDataValue.h"
#include "platform/datavalue/VariantConversion.h"

struct RealDataValueTraits
{
    static QVariant toVariant(double v) { return QVariant(v); }
    static bool fromVariant(const QVariant& variant, double* v) { return VariantConversion::toDouble(variant, v); }
    static QString toString(double v) { return QString::number(v); }
};

// A data value holding a double (variant form "d" on the bus); see DataValue for the
// locking and broadcast rules.
class RealDataValue : public TypedDataValue<double, RealDataValueTraits>
{
public:
    using TypedDataValue::TypedDataValue;
};
