#pragma once

#include "platform/datavalue/TypedDataValue.h"
#include "platform/datavalue/VariantConversion.h"

struct Uint64DataValueTraits
{
    static QVariant toVariant(quint64 v) { return QVariant::fromValue<quint64>(v); }
    static bool fromVariant(const QVariant& variant, quint64* v) { return VariantConversion::toUInt64(variant, v); }
    static QString toString(quint64 v) { return QString::number(v); }
};

// A data value holding a quint64 (variant form "t" on the bus); see DataValue for the
// locking and broadcast rules.
class Uint64DataValue : public TypedDataValue<quint64, Uint64DataValueTraits>
{
public:
    using TypedDataValue::TypedDataValue;
};
