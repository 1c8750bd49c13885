#include "tests/support/TestHttpResponse.h"

#include <QHash>

#include <limits>

namespace {

// Rate of a live stream that names none: 128 kbit/s, the most common radio bit rate.
constexpr qint64 kDefaultLiveRate = 16000;
// Metadata text is at most 255 blocks of 16 bytes, all a single length byte can say.
constexpr int kMaxMetadataBlocks = 255;

QByteArray reasonPhrase(int status)
{
    static const QHash<int, QByteArray> phrases{{200, "OK"}, {206, "Partial Content"}, {302, "Found"},
        {400, "Bad Request"}, {403, "Forbidden"}, {404, "Not Found"}, {416, "Range Not Satisfiable"},
        {500, "Internal Server Error"}, {503, "Service Unavailable"}};
    return phrases.value(status, "Status");
}

QByteArray chunk(const QByteArray& payload)
{
    if (payload.isEmpty())
        return {};
    return QByteArray::number(payload.size(), 16) + "\r\n" + payload + "\r\n";
}

} // namespace

TestHttpResponse::TestHttpResponse(const TestHttpResource& resource, const QByteArray& requestHeader)
    : mResource(resource)
    , mHeadOnly(requestHeader.startsWith("HEAD "))
    , mWantsMetadata(headerValue(requestHeader, "icy-metadata") == "1")
    , mStatus(resource.redirectTo.isEmpty() ? resource.status : 302)
    , mLength(resource.redirectTo.isEmpty() ? resource.body.size() : 0)
{
    if (mResource.body.isEmpty() && isLive())
        mResource.body = QByteArray(1024, '\0');
    if (mStatus == 200 && mResource.acceptRanges && !isLive())
        chooseRange(requestHeader);
    mClock.start();
}

QByteArray TestHttpResponse::headerValue(const QByteArray& requestHeader, const QByteArray& name)
{
    const QList<QByteArray> lines = requestHeader.split('\n');
    for (int i = 1; i < lines.size(); ++i) {
        const QByteArray& line = lines.at(i);
        const int colon = line.indexOf(':');
        if (colon > 0 && line.left(colon).trimmed().compare(name, Qt::CaseInsensitive) == 0)
            return line.mid(colon + 1).trimmed();
    }
    return {};
}

// "bytes=N-" and "bytes=N-M"; anything else is ignored and the whole body served.
void TestHttpResponse::chooseRange(const QByteArray& requestHeader)
{
    const QByteArray range = headerValue(requestHeader, "range");
    const int dash = range.indexOf('-');
    if (!range.startsWith("bytes=") || dash < 0)
        return;
    bool startOk = false;
    bool endOk = false;
    const qint64 start = range.mid(6, dash - 6).toLongLong(&startOk);
    const qint64 end = range.mid(dash + 1).toLongLong(&endOk);
    if (!startOk)
        return;
    const qint64 size = mResource.body.size();
    mStatus = start < size ? 206 : 416;
    mStart = start < size ? start : 0;
    mLength = start < size ? (endOk ? qMin(end + 1, size) : size) - start : 0;
}

QByteArray TestHttpResponse::statusLine() const
{
    return "HTTP/1.1 " + QByteArray::number(mStatus) + ' ' + reasonPhrase(mStatus) + "\r\n";
}

QByteArray TestHttpResponse::head() const
{
    if (isLive())
        return liveHead();
    QByteArray head = statusLine();
    if (mStatus == 302)
        return head + "Location: " + mResource.redirectTo + "\r\nContent-Length: 0\r\nConnection: close\r\n\r\n";
    head += "Content-Type: " + mResource.contentType + "\r\n";
    if (mResource.acceptRanges)
        head += "Accept-Ranges: bytes\r\n";
    const QByteArray size = QByteArray::number(mResource.body.size());
    if (mStatus == 206)
        head += "Content-Range: bytes " + QByteArray::number(mStart) + '-' + QByteArray::number(mStart + mLength - 1) + '/' + size + "\r\n";
    if (mStatus == 416)
        head += "Content-Range: bytes */" + size + "\r\n";
    if (mResource.chunked)
        head += "Transfer-Encoding: chunked\r\n";
    else if (mResource.contentLength)
        head += "Content-Length: " + QByteArray::number(mLength) + "\r\n";
    return head + "Connection: close\r\n\r\n";
}

QByteArray TestHttpResponse::liveHead() const
{
    QByteArray head = mResource.icyStatusLine ? QByteArray("ICY 200 OK\r\n") : QByteArray("HTTP/1.0 200 OK\r\n");
    const bool defaultType = mResource.contentType == TestHttpResource().contentType;
    head += "Content-Type: " + (defaultType ? QByteArray("audio/mpeg") : mResource.contentType) + "\r\n";
    head += "icy-name: " + mResource.icyName + "\r\n";
    head += "icy-br: " + QByteArray::number(bytesPerSecond() * 8 / 1000) + "\r\n";
    if (mWantsMetadata && mResource.icyMetaInt > 0)
        head += "icy-metaint: " + QByteArray::number(mResource.icyMetaInt) + "\r\n";
    return head + "\r\n";
}

qint64 TestHttpResponse::bytesPerSecond() const
{
    if (isLive() && mResource.bytesPerSecond <= 0)
        return kDefaultLiveRate;
    return mResource.bytesPerSecond;
}

// Body bytes this answer may carry in total: the body, shortened by a stall or a cut.
qint64 TestHttpResponse::bodyBytesAllowed() const
{
    qint64 allowed = isLive() ? std::numeric_limits<qint64>::max() : mLength;
    if (mResource.stallAfter >= 0 && !mStallEnded)
        allowed = qMin(allowed, mResource.stallAfter);
    if (mResource.closeAfter >= 0)
        allowed = qMin(allowed, mResource.closeAfter);
    return mHeadOnly ? 0 : allowed;
}

QByteArray TestHttpResponse::take(qint64 maxBodyBytes)
{
    const qint64 count = qMax<qint64>(0, qMin(maxBodyBytes, bodyBytesAllowed() - mTaken));
    if (isLive())
        return takeLive(count);
    const QByteArray payload = mResource.body.mid(mStart + mTaken, count);
    mTaken += count;
    if (!mResource.chunked)
        return payload;
    QByteArray wire = chunk(payload);
    if (mTaken == mLength && !mHeadOnly && !mTerminated) {
        wire += "0\r\n\r\n";
        mTerminated = true;
    }
    return wire;
}

QByteArray TestHttpResponse::takeLive(qint64 count)
{
    const bool withMetadata = mWantsMetadata && mResource.icyMetaInt > 0;
    QByteArray wire;
    while (count > 0) {
        if (withMetadata && mSinceMetadata == mResource.icyMetaInt) {
            wire += metadataBlock();
            mSinceMetadata = 0;
        }
        qint64 step = qMin(count, mResource.body.size() - mLoopPosition);
        if (withMetadata)
            step = qMin(step, mResource.icyMetaInt - mSinceMetadata);
        wire += mResource.body.mid(mLoopPosition, step);
        mLoopPosition = (mLoopPosition + step) % mResource.body.size();
        mSinceMetadata += step;
        mTaken += step;
        count -= step;
    }
    return wire;
}

QByteArray TestHttpResponse::currentTitle() const
{
    if (mResource.icyTitles.isEmpty())
        return {};
    const qint64 period = qMax(1, mResource.icyTitleSeconds) * qint64(1000);
    return mResource.icyTitles.at((mClock.elapsed() / period) % mResource.icyTitles.size()).toUtf8();
}

// A block repeats no title: an unchanged title is the one-byte empty block.
QByteArray TestHttpResponse::metadataBlock()
{
    const QByteArray title = currentTitle();
    if (mTitleSent && title == mLastTitle)
        return QByteArray(1, '\0');
    mTitleSent = true;
    mLastTitle = title;
    QByteArray text = ("StreamTitle='" + title + "';").left(kMaxMetadataBlocks * 16);
    const int blocks = int((text.size() + 15) / 16);
    text.append(QByteArray(blocks * 16 - text.size(), '\0'));
    return char(blocks) + text;
}

bool TestHttpResponse::isComplete() const
{
    if (mHeadOnly)
        return true;
    if (mResource.closeAfter >= 0 && mTaken >= mResource.closeAfter)
        return true;
    return !isLive() && mTaken >= mLength && (!mResource.chunked || mTerminated);
}

bool TestHttpResponse::isStalled() const
{
    return !isComplete() && mResource.stallAfter >= 0 && !mStallEnded && mTaken >= mResource.stallAfter;
}
