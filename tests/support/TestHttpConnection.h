#pragma once

#include "tests/support/TestHttpResource.h"
#include "tests/support/TestHttpResponse.h"

#include <QElapsedTimer>
#include <QObject>
#include <QTimer>

#include <memory>

class QTcpSocket;

// One client connection of TestHttpServer: reads one request, asks the server what to answer
// (requestParsed, to which the server replies with respond()), then sends the answer. A
// throttled body goes out in slices on a 20 ms timer at its rate (with at most 200 ms of saved
// up rate after a pause); an unthrottled one is written whenever the socket's send buffer runs low. The
// connection closes after the answer (HTTP/1.1 "Connection: close"), stays open and silent
// when the answer stalls (and goes on at its pace when a timed stall ends), and deletes itself
// when the socket closes.
//
// Thread: the thread of its socket; never blocks it. Owns: the socket and the answer.
// Failure: a request that never ends its header within 64 kB gets 400 and the connection closes.
class TestHttpConnection : public QObject
{
    Q_OBJECT
public:
    // Takes the socket over (it becomes a child of the connection). Reading starts from the event
    // loop, so the owner can connect to requestParsed first.
    TestHttpConnection(QTcpSocket* socket, QObject* parent);

    // The answer to the parsed request; call once, from a slot of requestParsed or later.
    void respond(const TestHttpResource& resource);

signals:
    // requestHeader: the request line and header lines, without the empty line.
    void requestParsed(TestHttpConnection* connection, const QString& path, const QByteArray& requestHeader);
    void bodyBytesSent(const QString& path, qint64 bytes);
    void closed(const QString& path);

private:
    void readRequest();
    void rejectOversizedRequest();
    void pump();
    qint64 pacedBudget();
    qint64 sendSlice(qint64 maxBodyBytes);   // returns the body bytes sent
    void finishIfDone();
    void endStall();
    void onDisconnected();

    QTcpSocket* mSocket;
    QByteArray mBuffer;
    bool mRequestSeen = false;
    QString mPath;
    QByteArray mRequestHeader;
    std::unique_ptr<TestHttpResponse> mResponse;
    QTimer mPaceTimer;
    QTimer mStallTimer;
    QElapsedTimer mSinceAnswer;
    qint64 mLastPaceMs = 0;      // mSinceAnswer's reading at the last paced slice
    double mCredit = 0;          // body bytes a throttled answer may still send
};
