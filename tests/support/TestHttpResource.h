#pragma once

#include <QByteArray>
#include <QStringList>

// What TestHttpServer answers for one path: the bytes and every way of serving them badly that
// a media client must survive (no length, no ranges, chunked framing, slow, stalled, cut off,
// redirected, refused) and endless ICY radio streams with in-band titles.
//
// Thread: a plain value; copied into the server. Owns: its bytes. Failure: none of its own; a
// live stream with bytesPerSecond 0 is served at 16000 B/s (128 kbit/s), and one with an empty
// body loops 1024 zero bytes.
struct TestHttpResource {
    QByteArray body;                 // served bytes (for endless ICY streams: the audio bytes, looped)
    QByteArray contentType = "application/octet-stream";  // live streams: audio/mpeg unless changed
    int status = 200;                // 200, 403, 404, 500 ... (a body may come with an error status)
    bool contentLength = true;       // send Content-Length
    bool acceptRanges = true;        // announce "Accept-Ranges: bytes" and honour "Range: bytes=N-" with 206 + Content-Range
    bool chunked = false;            // Transfer-Encoding: chunked (then no Content-Length)
    qint64 bytesPerSecond = 0;       // throttle the body (0 = as fast as possible)
    qint64 stallAfter = -1;          // stop sending (keep the connection open, silent) after N body bytes
    int stallMs = 0;                 // >0: the stall ends after this long and the body goes on (a radio shadow)
    qint64 closeAfter = -1;          // close the connection abruptly after N body bytes
    QByteArray redirectTo;           // non-empty: answer 302 with this Location (relative or absolute)
    // Live streams: endless, served at bytesPerSecond, looping `body`. Their body bytes are the
    // audio bytes; metadata blocks are not counted.
    bool icy = false;
    bool icyStatusLine = true;       // "ICY 200 OK" status line; false: "HTTP/1.0 200 OK"
    int icyMetaInt = 0;              // >0 and the request asked "Icy-MetaData: 1": a metadata block after every icyMetaInt audio bytes
    QStringList icyTitles;           // StreamTitle values, rotating
    int icyTitleSeconds = 5;         // each title lasts this long
    QByteArray icyName = "Test Radio";  // icy-name header
    // Live streams: audio bytes sent at once on connect, before the pace starts, as streaming
    // servers do so that a player can start without waiting (commonly 64 KiB).
    qint64 icyBurstBytes = 0;
};
