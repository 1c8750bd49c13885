#include "tests/support/TestHttpConnection.h"

#include <QTcpSocket>
#include <QUrl>

namespace {

// A request header longer than this is no request a media client sends.
constexpr int kMaxRequestHeader = 64 * 1024;
// Pacing interval of throttled bodies: fine enough that a reader sees a steady rate.
constexpr int kPaceIntervalMs = 20;
// Bytes queued in the socket before the connection waits for the client to read: enough to keep
// loopback busy, small enough that a client that stops reading stops the sender too.
constexpr qint64 kMaxQueued = 256 * 1024;
// Most a throttled answer sends at once after a pause (its client stopped reading, or the event
// loop was late): a short burst keeps the average rate without flooding the client.
constexpr qint64 kMaxBurstMs = 200;
// Body bytes per write of an unthrottled answer.
constexpr qint64 kSliceBytes = 64 * 1024;

QString pathOf(const QByteArray& requestHeader)
{
    const QList<QByteArray> requestLine = requestHeader.left(requestHeader.indexOf('\r')).split(' ');
    return QUrl(QString::fromLatin1(requestLine.value(1))).path();
}

} // namespace

TestHttpConnection::TestHttpConnection(QTcpSocket* socket, QObject* parent)
    : QObject(parent)
    , mSocket(socket)
{
    mSocket->setParent(this);
    mPaceTimer.setInterval(kPaceIntervalMs);
    connect(&mPaceTimer, &QTimer::timeout, this, &TestHttpConnection::pump);
    mStallTimer.setSingleShot(true);
    connect(&mStallTimer, &QTimer::timeout, this, &TestHttpConnection::endStall);
    connect(mSocket, &QTcpSocket::readyRead, this, &TestHttpConnection::readRequest);
    connect(mSocket, &QTcpSocket::bytesWritten, this, &TestHttpConnection::pump);
    connect(mSocket, &QTcpSocket::disconnected, this, &TestHttpConnection::onDisconnected);
    QMetaObject::invokeMethod(this, &TestHttpConnection::readRequest, Qt::QueuedConnection);
}

void TestHttpConnection::readRequest()
{
    if (mRequestSeen) {
        mSocket->readAll();   // one request per connection; later bytes are not answered
        return;
    }
    mBuffer += mSocket->readAll();
    const int end = mBuffer.indexOf("\r\n\r\n");
    if (end < 0) {
        if (mBuffer.size() > kMaxRequestHeader)
            rejectOversizedRequest();
        return;
    }
    mRequestSeen = true;
    mRequestHeader = mBuffer.left(end);
    mBuffer.clear();
    mPath = pathOf(mRequestHeader);
    emit requestParsed(this, mPath, mRequestHeader);
}

void TestHttpConnection::rejectOversizedRequest()
{
    mRequestSeen = true;
    mSocket->write("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    mSocket->disconnectFromHost();
}

void TestHttpConnection::respond(const TestHttpResource& resource)
{
    if (mResponse || mSocket->state() != QAbstractSocket::ConnectedState)
        return;
    mResponse = std::make_unique<TestHttpResponse>(resource, mRequestHeader);
    mSocket->write(mResponse->head());
    if (resource.icy && resource.icyBurstBytes > 0)
        sendSlice(resource.icyBurstBytes);
    mSinceAnswer.start();
    if (mResponse->bytesPerSecond() > 0)
        mPaceTimer.start();
    pump();
}

// Sends what the answer may send now: at a throttled answer's pace, else what fits the queue.
void TestHttpConnection::pump()
{
    if (!mResponse || mSocket->state() != QAbstractSocket::ConnectedState)
        return;
    if (mResponse->isComplete() || mResponse->isStalled())
        return finishIfDone();
    if (mSocket->bytesToWrite() >= kMaxQueued)
        return;
    if (mResponse->bytesPerSecond() > 0)
        mCredit -= sendSlice(pacedBudget());
    else
        sendSlice(kSliceBytes);
    finishIfDone();
}

// Body bytes a throttled answer may send now: its rate over the time since the last slice,
// saved up to at most kMaxBurstMs worth.
qint64 TestHttpConnection::pacedBudget()
{
    const qint64 now = mSinceAnswer.elapsed();
    const double rate = double(mResponse->bytesPerSecond());
    mCredit = qMin(mCredit + rate * double(now - mLastPaceMs) / 1000.0, rate * kMaxBurstMs / 1000.0);
    mLastPaceMs = now;
    return qint64(mCredit);
}

qint64 TestHttpConnection::sendSlice(qint64 maxBodyBytes)
{
    const qint64 before = mResponse->bodyBytesTaken();
    const QByteArray wire = mResponse->take(maxBodyBytes);
    if (!wire.isEmpty())
        mSocket->write(wire);
    const qint64 sent = mResponse->bodyBytesTaken() - before;
    if (sent > 0)
        emit bodyBytesSent(mPath, sent);
    return sent;
}

// A complete answer closes once its bytes are out; a stalled one only stops the pacing.
void TestHttpConnection::finishIfDone()
{
    if (mResponse->isComplete()) {
        mPaceTimer.stop();
        mSocket->disconnectFromHost();
    } else if (mResponse->isStalled()) {
        mPaceTimer.stop();
        if (mResponse->stallMs() > 0 && !mStallTimer.isActive())
            mStallTimer.start(mResponse->stallMs());
    }
}

void TestHttpConnection::endStall()
{
    mResponse->endStall();
    mLastPaceMs = mSinceAnswer.elapsed();
    if (mResponse->bytesPerSecond() > 0)
        mPaceTimer.start();
    pump();
}

void TestHttpConnection::onDisconnected()
{
    mPaceTimer.stop();
    mStallTimer.stop();
    emit closed(mPath);
    deleteLater();
}
