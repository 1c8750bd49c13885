#pragma once

#include "platform/service/ServiceMethod.h"

#include <QDBusMessage>
#include <QVariantMap>

// Turns the arguments of a D-Bus call into the framework's named-argument map. Two forms
// arrive: positional typed arguments, named by the method's declared names in order
// (`gdbus call ... .play 5000`), or one a{sv} map of named arguments
// (`busctl call ... play 'a{sv}' 1 milliSecondsStartPos i 5000`). Positional arguments beyond
// the declared ones are kept under the names "arg<N>" so the service reports them as ignored.
// A map with more than a few dozen undeclared keys is refused whole (see
// kMaxUndeclaredArguments).
//
// Thread: any (pure functions). Failure: false with a one-line reason naming the argument and
// the expected type when a value has the wrong type (a number with a fraction is no integer),
// or saying how many undeclared arguments are too many.
namespace DBusArguments {

bool toNamedArguments(const QDBusMessage& message, const ServiceMethod& method, QVariantMap* arguments, QString* error);

// Converts a value to the declared type without QVariant's guesswork: text is not a number,
// a number is not text, and an integer must fit in 32 bits.
bool convertStrictly(const QVariant& value, QMetaType::Type type, QVariant* converted);

// The bytes a value carries on the bus, without the message's framing and alignment: the UTF-8
// text of a string, the bytes of a byte array, a number's own width; a map counts its keys and
// values. What the service framework adds to the process's traffic statistics.
qint64 payloadBytes(const QVariant& value);
qint64 payloadBytes(const QVariantMap& arguments);

} // namespace DBusArguments
