// The loopback HTTP server that streaming tests stand on, read by a raw socket client: status
// lines, headers and body bytes are exactly what each resource asks for.

#include "tests/support/TestHttpServer.h"

#include <QElapsedTimer>
#include <QTcpSocket>
#include <QtTest>

namespace {

QByteArray pattern(int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(i * 31 % 251);
    return bytes;
}

// A resource of size pattern bytes, changed as a row needs it.
TestHttpResource item(int size, void (*change)(TestHttpResource&) = [](TestHttpResource&) {})
{
    TestHttpResource resource;
    resource.body = pattern(size);
    change(resource);
    return resource;
}

// A client that sends one request and collects every byte of the answer.
struct RawClient {
    QTcpSocket socket;
    QByteArray received;
    RawClient(quint16 port, const QByteArray& path, const QByteArray& extraHeaders = {})
    {
        QObject::connect(&socket, &QTcpSocket::readyRead, [this] { received += socket.readAll(); });
        socket.connectToHost(QHostAddress::LocalHost, port);
        socket.write("GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + extraHeaders + "\r\n");
    }
    bool waitClosed() { return QTest::qWaitFor([this] { return socket.state() == QAbstractSocket::UnconnectedState; }, 3000); }
    int headEnd() const { return received.indexOf("\r\n\r\n"); }
    QByteArray head() const { return received.left(headEnd() + 2); }   // ends with its last line's CRLF
    QByteArray body() const { return headEnd() < 0 ? QByteArray() : received.mid(headEnd() + 4); }
};

// Complete metadata blocks of an ICY body so far; audio gets the audio bytes before them.
QList<QByteArray> metadataBlocks(const QByteArray& body, int metaInt, QByteArray* audio)
{
    QList<QByteArray> blocks;
    for (int at = 0; at + metaInt < body.size() && at + metaInt + 1 + 16 * quint8(body.at(at + metaInt)) <= body.size();) {
        *audio += body.mid(at, metaInt);
        blocks.append(body.mid(at + metaInt + 1, 16 * quint8(body.at(at + metaInt))));
        at += metaInt + 1 + blocks.last().size();
    }
    return blocks;
}

} // namespace

class TestTestHttpServer : public QObject
{
    Q_OBJECT
    std::unique_ptr<TestHttpServer> mServer;
private slots:
    void init() { mServer = std::make_unique<TestHttpServer>(); QVERIFY(mServer->start()); }
    void cleanup() { mServer.reset(); }
    // One request per row to "/item", read until the server closes.
    void answersAsTheResourceSays_data()
    {
        QTest::addColumn<TestHttpResource>("resource");
        QTest::addColumn<QByteArray>("requestHeaders");
        QTest::addColumn<QByteArrayList>("headLines");   // the status line, then headers present
        QTest::addColumn<QByteArrayList>("absent");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("minMs");   // the answer takes at least this long
        QTest::newRow("range from 100 answers 206 with the rest") << item(1000) << QByteArray("Range: bytes=100-\r\n") << QByteArrayList{"HTTP/1.1 206 Partial Content", "Content-Range: bytes 100-999/1000", "Content-Length: 900"} << QByteArrayList{} << pattern(1000).mid(100) << 0;
        QTest::newRow("ranges off ignore the range and are not announced") << item(1000, [](TestHttpResource& r) { r.acceptRanges = false; }) << QByteArray("Range: bytes=100-\r\n") << QByteArrayList{"HTTP/1.1 200 OK", "Content-Length: 1000"} << QByteArrayList{"Accept-Ranges", "Content-Range"} << pattern(1000) << 0;
        QTest::newRow("redirect names its location") << item(1000, [](TestHttpResource& r) { r.redirectTo = "/elsewhere.mp3"; }) << QByteArray() << QByteArrayList{"HTTP/1.1 302 Found", "Location: /elsewhere.mp3"} << QByteArrayList{} << QByteArray() << 0;
        QTest::newRow("close after 300 ends after exactly 300 body bytes") << item(1000, [](TestHttpResource& r) { r.closeAfter = 300; }) << QByteArray() << QByteArrayList{"HTTP/1.1 200 OK", "Content-Length: 1000"} << QByteArrayList{} << pattern(300) << 0;
        QTest::newRow("throttled to 40 kB/s, 20 kB take half a second") << item(20000, [](TestHttpResource& r) { r.bytesPerSecond = 40000; }) << QByteArray() << QByteArrayList{"HTTP/1.1 200 OK"} << QByteArrayList{} << pattern(20000) << 400;
    }
    void answersAsTheResourceSays()
    {
        QFETCH(TestHttpResource, resource);
        const QByteArray path("/item");
        QFETCH(QByteArray, requestHeaders);
        QFETCH(QByteArrayList, headLines);
        QFETCH(QByteArrayList, absent);
        mServer->setResource("/item", resource);
        QElapsedTimer clock;
        clock.start();
        RawClient client(mServer->port(), path, requestHeaders);
        QVERIFY(client.waitClosed());
        QFETCH(int, minMs);
        QVERIFY2(clock.elapsed() >= minMs, QByteArray::number(clock.elapsed()));
        QVERIFY2(client.head().startsWith(headLines.takeFirst() + "\r\n"), client.head());
        for (const QByteArray& header : headLines)
            QVERIFY2(client.head().contains("\r\n" + header + "\r\n"), header);
        for (const QByteArray& header : absent)
            QVERIFY2(!client.head().contains("\r\n" + header), header);
        QTEST(client.body(), "body");
        QCOMPARE(mServer->requestCount(path), 1);
        QCOMPARE(mServer->requestHeaders(path).value(0) + "\r\n", "GET " + path + " HTTP/1.1\r\nHost: 127.0.0.1\r\n" + requestHeaders);
    }

    void stallSendsItsBytesThenNothing()
    {
        mServer->setResource("/item", item(4000, [](TestHttpResource& r) { r.stallAfter = 500; }));
        RawClient client(mServer->port(), "/item");
        QVERIFY(QTest::qWaitFor([&] { return client.body().size() >= 500; }, 3000));
        QVERIFY(!QSignalSpy(&client.socket, &QTcpSocket::readyRead).wait(300));
        QCOMPARE(client.body(), pattern(500));
        QCOMPARE(client.socket.state(), QAbstractSocket::ConnectedState);
        QCOMPARE(mServer->bytesSent("/item"), 500);
    }

    // Titles rotate each second; at 200 kB/s a block of the unchanged title follows within ms.
    void icyStreamCarriesTitles()
    {
        mServer->setResource("/radio", item(777, [](TestHttpResource& r) {
            r.icy = true; r.bytesPerSecond = 200000; r.icyMetaInt = 1000; r.icyTitles = QStringList{"first", "second"}; r.icyTitleSeconds = 1;
        }));
        RawClient client(mServer->port(), "/radio", "Icy-MetaData: 1\r\n");
        QVERIFY(QTest::qWaitFor([&] { return client.body().contains("StreamTitle='second';"); }, 3000));
        QByteArray audio;
        const QList<QByteArray> blocks = metadataBlocks(client.body(), 1000, &audio);
        QVERIFY(client.head().startsWith("ICY 200 OK\r\n") && client.head().contains("\r\nicy-metaint: 1000\r\n") && !client.head().contains("Content-Length"));
        QCOMPARE(blocks.value(0), QByteArray("StreamTitle='first';").leftJustified(32, '\0'));
        QCOMPARE(blocks.value(1), QByteArray());
        QVERIFY(blocks.contains(QByteArray("StreamTitle='second';").leftJustified(32, '\0')));
        QCOMPARE(audio.left(1554), pattern(777) + pattern(777));
        QCOMPARE(client.socket.state(), QAbstractSocket::ConnectedState);
    }
};

QTEST_GUILESS_MAIN(TestTestHttpServer)
#include "tst_test_http_server.moc"
