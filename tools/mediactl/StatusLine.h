#pragma once

#include "tools/mediactl/StatusMessageDecoder.h"

// How a decoded status message prints: one line, never more, whatever its values hold.
// - text: the message name, then `name=value` for each value (the name without "MEDIA2_"):
//   "-" for a value that has none (so it never reads as 0), strings quoted with JSON escapes
//   (a title cannot end the line or forge another), the server state as "Playing,NoError",
//   lists and maps as compact JSON, numbers and booleans as their text;
// - json: {"name":..., "values":{"MEDIA2_...":...}} with the values in message order, null for
//   a value that has none and the server state as ["Playing","NoError"].
//
// Thread: any; stateless.
class StatusLine
{
public:
    static QString text(const QString& message, const QList<StatusMessageDecoder::Value>& values);
    static QString json(const QString& message, const QList<StatusMessageDecoder::Value>& values);
};
