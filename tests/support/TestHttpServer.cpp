#include "tests/support/TestHttpServer.h"

#include "tests/support/TestHttpConnection.h"

#include <QTcpSocket>

TestHttpServer::TestHttpServer(QObject* parent)
    : QObject(parent)
{
    // Not newConnection: a TLS server has a connection to hand out only once its handshake ends.
    connect(&mListener, &QTcpServer::pendingConnectionAvailable, this, &TestHttpServer::acceptConnections);
    connect(&mTlsListener, &QTcpServer::pendingConnectionAvailable, this, &TestHttpServer::acceptConnections);
    connect(&mTlsListener, &QSslServer::startedEncryptionHandshake, this, [this] { ++mHandshakes; });
}

void TestHttpServer::useTls(const QSslCertificate& certificate, const QSslKey& key)
{
    QSslConfiguration configuration = QSslConfiguration::defaultConfiguration();
    configuration.setLocalCertificate(certificate);
    configuration.setPrivateKey(key);
    mTlsListener.setSslConfiguration(configuration);
    mTls = true;
}

QTcpServer& TestHttpServer::listener()
{
    return mTls ? static_cast<QTcpServer&>(mTlsListener) : mListener;
}

const QTcpServer& TestHttpServer::listener() const
{
    return mTls ? static_cast<const QTcpServer&>(mTlsListener) : mListener;
}

bool TestHttpServer::start(quint16 port)
{
    if (listener().listen(QHostAddress::LocalHost, port))
        return true;
    qWarning("TestHttpServer: cannot listen on 127.0.0.1:%u: %s", port, qPrintable(listener().errorString()));
    return false;
}

quint16 TestHttpServer::port() const
{
    return listener().serverPort();
}

QUrl TestHttpServer::url(const QString& path) const
{
    return QUrl(QStringLiteral("%1://127.0.0.1:%2%3").arg(mTls ? "https" : "http").arg(port()).arg(normalized(path)));
}

void TestHttpServer::setResource(const QString& path, const TestHttpResource& resource)
{
    mResources.insert(normalized(path), resource);
}

int TestHttpServer::requestCount(const QString& path) const
{
    return int(mRequests.value(normalized(path)).size());
}

QList<QByteArray> TestHttpServer::requestHeaders(const QString& path) const
{
    return mRequests.value(normalized(path));
}

qint64 TestHttpServer::bytesSent(const QString& path) const
{
    return mBytesSent.value(normalized(path));
}

QString TestHttpServer::normalized(const QString& path)
{
    return path.startsWith(QLatin1Char('/')) ? path : QLatin1Char('/') + path;
}

void TestHttpServer::acceptConnections()
{
    while (QTcpSocket* socket = listener().nextPendingConnection()) {
        auto* connection = new TestHttpConnection(socket, this);
        connect(connection, &TestHttpConnection::bodyBytesSent, this, [this](const QString& path, qint64 bytes) { mBytesSent[path] += bytes; });
        connect(connection, &TestHttpConnection::requestParsed, this, &TestHttpServer::answer);
        connect(connection, &TestHttpConnection::closed, this, &TestHttpServer::connectionClosed);
    }
}

void TestHttpServer::answer(TestHttpConnection* connection, const QString& path, const QByteArray& requestHeader)
{
    mRequests[path].append(requestHeader);
    emit requestReceived(path);
    connection->respond(resourceFor(path));
}

TestHttpResource TestHttpServer::resourceFor(const QString& path) const
{
    const auto found = mResources.constFind(path);
    if (found != mResources.constEnd())
        return *found;
    TestHttpResource missing;
    missing.status = 404;
    missing.body = "Not Found\n";
    missing.contentType = "text/plain";
    missing.acceptRanges = false;
    return missing;
}
