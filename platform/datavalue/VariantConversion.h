#pragma once

#include <QString>
#include <QVariant>

// Strict conversions from a variant that arrived from outside (another process over the bus,
// the initial values file) to a data value's type. Unlike QVariant's own rules, text that is
// not a number is refused instead of becoming 0, and a number that does not fit is refused
// instead of wrapping around, so a bad write is an error and never a silently wrong value.
//
// Thread: pure functions, any thread.
namespace VariantConversion {

bool toInt(const QVariant& value, int* result);
bool toUInt64(const QVariant& value, quint64* result);
bool toDouble(const QVariant& value, double* result);
// Accepts booleans and the texts "true"/"false"/"1"/"0" (the initial values file is text);
// refuses numbers.
bool toBool(const QVariant& value, bool* result);
// Accepts text only.
bool toString(const QVariant& value, QString* result);

} // namespace VariantConversion
