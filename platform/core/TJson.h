#pragma once

#include <QByteArray>
#include <QVariant>

// Turns JSON text into QVariant trees and back, so the rest of the system handles JSON as
// QVariantMap/QVariantList and never touches QJsonValue.
//
// Thread: pure functions without shared state; safe from any thread.
// Failure: the parser never throws and never logs. A malformed document gives an invalid
// QVariant and *ok == false; callers that must tell "null" from "broken" pass ok, and decide
// themselves whether a failure is worth a log line. The serializer cannot fail: whatever
// QJsonValue::fromVariant cannot represent is written as null.
namespace TJson {

// Objects become QVariantMap, arrays QVariantList, strings QString, true/false bool and null an
// invalid QVariant. A number becomes qlonglong when its value is integral and fits in 64 bits
// (so "2.0" and "1e2" are qlonglong as well), otherwise double. Integers written without a
// fraction or exponent keep all 64 bits; anything else has passed through a double first.
// A leading UTF-8 byte order mark and surrounding white space are accepted.
class Parser
{
public:
    // allowScalar: also accept a lone number, string, bool or null as the whole document. It
    // is off by default because messages of the client protocol are always objects, and a bare
    // value there means the sender is broken.
    static QVariant parse(const QByteArray& json, bool* ok = nullptr, bool allowScalar = false);
};

// QVariantMap becomes an object whose members come out in the map's (sorted) key order,
// QVariantList an array, an invalid QVariant null. 64-bit integers are written digit for digit,
// never in exponent form. A scalar at the top level is written as a bare value.
class Serializer
{
public:
    // indented: QJsonDocument's indented layout for objects and arrays (for logs and files
    // people read); a top-level scalar is the same bare value either way.
    static QByteArray serialize(const QVariant& value, bool indented = false);
};

} // namespace TJson
