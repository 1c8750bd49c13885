#pragma once

#include "tests/support/TestHttpResource.h"

#include <QHash>
#include <QList>
#include <QObject>
#include <QSslServer>
#include <QTcpServer>
#include <QUrl>

class TestHttpConnection;

// A scriptable HTTP server on 127.0.0.1 for tests and demos: each path answers as its
// TestHttpResource says (whole, ranged, chunked, slow, stalled, cut off, redirected, refused, or
// as an endless ICY radio stream); unknown paths answer 404. Counts the requests, keeps their
// headers and the body bytes sent per path, so a test can check what a client asked for.
// Every connection gets one answer and is then closed ("Connection: close"). With useTls() it
// speaks https instead, with the certificate given, and counts the TLS handshakes it saw begin,
// so a test can tell how often a client tried, also when every try failed.
//
// Thread: lives on the thread that creates it and never blocks it; all sending is driven by
// that thread's event loop. Owns: its listening socket and all client connections.
// Failure: start() returns false (and logs the reason) when it cannot listen.
class TestHttpServer : public QObject
{
    Q_OBJECT
public:
    explicit TestHttpServer(QObject* parent = nullptr);

    bool start(quint16 port = 0);          // listens on 127.0.0.1; port 0 = any free port
    // From the next start() on, https with this certificate and key.
    void useTls(const QSslCertificate& certificate, const QSslKey& key);
    quint16 port() const;
    QUrl url(const QString& path) const;   // http(s)://127.0.0.1:PORT/path
    // Replaces what path answers; connections already answering keep their old resource.
    void setResource(const QString& path, const TestHttpResource& resource);
    int requestCount(const QString& path) const;
    // Request line and header lines of each request, in order, without the empty line.
    QList<QByteArray> requestHeaders(const QString& path) const;
    qint64 bytesSent(const QString& path) const;                 // body bytes sent in total
    int handshakeCount() const { return mHandshakes; }           // with TLS: one per connection

signals:
    // Emitted before the answer is chosen, so a slot may still change the path's resource.
    void requestReceived(const QString& path);
    // A connection that asked for path has closed (either side closed it).
    void connectionClosed(const QString& path);

private:
    static QString normalized(const QString& path);
    QTcpServer& listener();
    const QTcpServer& listener() const;
    void acceptConnections();
    void answer(TestHttpConnection* connection, const QString& path, const QByteArray& requestHeader);
    TestHttpResource resourceFor(const QString& path) const;

    QTcpServer mListener;
    QSslServer mTlsListener;
    bool mTls = false;      // mTlsListener listens instead of mListener
    int mHandshakes = 0;
    QHash<QString, TestHttpResource> mResources;
    QHash<QString, QList<QByteArray>> mRequests;
    QHash<QString, qint64> mBytesSent;
};
