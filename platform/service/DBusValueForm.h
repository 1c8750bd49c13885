#pragma once

#include <QVariant>

// The D-Bus forms of data values: bool b, int i, double d, string s, 64-bit unsigned t, a list
// of ints ai (the server state pair), records a{sv}. An invalid value travels as an empty
// string beside valid=false.
namespace DBusValueForm {

// A value ready to be wrapped in a D-Bus variant.
QVariant toDBus(const QVariant& value);
// A value that arrived in a D-Bus variant, with containers turned into Qt's own lists and maps.
QVariant fromDBus(const QVariant& value);

} // namespace DBusValueForm
