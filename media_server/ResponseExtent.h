#pragma once

#include <QByteArray>

namespace MediaV2 {

// Where a successful download response's body belongs in the resource, and how long the whole
// resource is, from its status and headers. A download asks "Range: bytes=N-" to resume; the
// server may honour it (206, body from N), ignore it (200, the whole resource from 0), or
// answer a range of its own choosing, and the data file must never mix them up.
//
// - 206: the body starts where Content-Range says ("bytes S-E/T"), else at the offset asked
//   for; the total is T, else the body's start plus its Content-Length.
// - any other 2xx: the body is the whole resource from byte 0, its Content-Length the total.
// A total of 0 means unknown (no usable header, or "bytes S-E/*" without a Content-Length).
//
// Thread: any (a value computed from its arguments).
struct ResponseExtent
{
    qint64 bodyStart = 0;
    qint64 total = 0;

    static ResponseExtent of(qint64 requestedOffset, int statusCode, const QByteArray& contentLength,
                             const QByteArray& contentRange);
};

} // namespace MediaV2
