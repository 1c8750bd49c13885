#pragma once

#include "tests/support/TestHttpResource.h"

#include <QByteArray>
#include <QElapsedTimer>

// One answer of TestHttpServer, as bytes for the wire: decides the status and headers from the
// resource and the request (range, ICY metadata wish, HEAD), then hands out the body in slices
// with chunk framing and ICY metadata blocks woven in, and says when the body has ended, when
// it must be cut off and when it stalls. Knows nothing of sockets or timing of the sending.
//
// Thread: whichever thread uses it; not shared. Owns: a copy of the resource.
// Failure: a request it cannot satisfy gets an HTTP error answer (416 for a range beyond the end).
class TestHttpResponse
{
public:
    // requestHeader: the request line and header lines, without the empty line.
    TestHttpResponse(const TestHttpResource& resource, const QByteArray& requestHeader);

    // Value of a header in a request header block (case-insensitive name); empty when absent.
    static QByteArray headerValue(const QByteArray& requestHeader, const QByteArray& name);

    QByteArray head() const;
    // The next bytes for the wire, carrying at most maxBodyBytes body bytes.
    QByteArray take(qint64 maxBodyBytes);
    qint64 bodyBytesTaken() const { return mTaken; }
    // Body bytes per second the answer must not exceed; 0 = unthrottled.
    qint64 bytesPerSecond() const;
    // Everything was sent (or the body is cut off here): the connection should close.
    bool isComplete() const;
    // Nothing more will be sent, but the connection stays open.
    bool isStalled() const;
    // A timed stall is over: the rest of the body may go.
    void endStall() { mStallEnded = true; }
    int stallMs() const { return mResource.stallMs; }

private:
    bool isLive() const { return mResource.icy && mResource.redirectTo.isEmpty(); }
    void chooseRange(const QByteArray& requestHeader);
    QByteArray statusLine() const;
    QByteArray liveHead() const;
    qint64 bodyBytesAllowed() const;
    QByteArray takeLive(qint64 count);
    QByteArray metadataBlock();
    QByteArray currentTitle() const;

    TestHttpResource mResource;
    bool mHeadOnly = false;
    bool mWantsMetadata = false;
    int mStatus = 200;
    qint64 mStart = 0;           // first body byte served
    qint64 mLength = 0;          // body bytes in this answer (finite answers)
    qint64 mTaken = 0;           // body bytes handed out so far
    bool mStallEnded = false;
    bool mTerminated = false;    // the last chunk was handed out
    qint64 mLoopPosition = 0;    // live: next audio byte of the looped body
    qint64 mSinceMetadata = 0;   // live: audio bytes since the last metadata block
    QByteArray mLastTitle;       // live: title in the last metadata block
    bool mTitleSent = false;
    QElapsedTimer mClock;        // live: titles rotate on this clock
};
