// Downloads against the loopback test server: whole and resumed bodies, the failures a radio
// listener meets (error statuses, redirects and loops, stalls, drops, no such host, nobody
// listening), old ICY status lines, byte counting, and a consumer slower than the network.

#include "platform/datavalue/ConnectionUsageDataValue.h"
#include "platform/config/ConfigStore.h"
#include "platform/net/NetDownloader.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHttpServer.h"

#include <QScopeGuard>
#include <QtTest>

namespace {

QByteArray pattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(i * 31 % 251);
    return bytes;
}

// One finished download: its status, body, final status code and the redirects it reported.
struct Result
{
    NetDownloader::Status status = NetDownloader::Aborted;
    QByteArray body;
    int statusCode = 0;
    QStringList redirects;
    QString error;
    int largestChunk = 0;
};

Result download(NetDownloader& downloader, int stallSeconds = 30)
{
    Result result;
    downloader.setStallTimeout(stallSeconds);
    QObject::connect(&downloader, &NetDownloader::dataAvailable, [&](const QByteArray& chunk) {
        result.body += chunk;
        result.largestChunk = qMax(result.largestChunk, int(chunk.size()));
    });
    QObject::connect(&downloader, &NetDownloader::redirected, [&](const QString& url) { result.redirects.append(url); });
    QSignalSpy done(&downloader, &NetDownloader::downloadComplete);
    downloader.startDownload();
    if (!done.wait(20000))
        return result;
    result.status = done.first().at(1).value<NetDownloader::Status>();
    result.statusCode = downloader.statusCode();
    result.error = downloader.errorString();
    return result;
}

} // namespace

class TestNetDownloader : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase();
    void endsWithItsStatus_data();
    void endsWithItsStatus();
    void resumesFromAnOffset_data();
    void resumesFromAnOffset();
    void redirectIsReportedAndFollowed();
    void icyStatusLineIsAcceptedWithItsHeaders();
    void bytesAreCountedByCategory();
    void strictTlsRefusesToSkipVerification();
    void slowConsumerKeepsMemoryBounded();

private:
    TestHttpServer mServer;
    QByteArray mBody = pattern(3 * 1024 * 1024 + 17);
};

void TestNetDownloader::initTestCase()
{
    QVERIFY(mServer.start());
    TestHttpResource whole;
    whole.body = mBody;
    mServer.setResource(QStringLiteral("/whole"), whole);
    TestHttpResource noRanges = whole;
    noRanges.acceptRanges = false;
    mServer.setResource(QStringLiteral("/noranges"), noRanges);
    for (int status : {403, 404, 500}) {
        TestHttpResource failing;
        failing.status = status;
        failing.body = "nope";
        mServer.setResource(QStringLiteral("/status%1").arg(status), failing);
    }
    TestHttpResource stall = whole;
    stall.stallAfter = 1000;
    mServer.setResource(QStringLiteral("/stall"), stall);
    TestHttpResource drop = whole;
    drop.closeAfter = 5000;
    mServer.setResource(QStringLiteral("/drop"), drop);
    TestHttpResource loop;
    loop.redirectTo = "/loop";
    mServer.setResource(QStringLiteral("/loop"), loop);
    TestHttpResource hop;
    hop.redirectTo = "/whole";
    mServer.setResource(QStringLiteral("/hop"), hop);
}

void TestNetDownloader::endsWithItsStatus_data()
{
    QTest::addColumn<QString>("url");
    QTest::addColumn<int>("status");
    QTest::addColumn<int>("statusCode");
    QTest::addColumn<QString>("error");
    const QString base = mServer.url(QString()).toString();
    QTest::newRow("whole body") << base + "whole" << int(NetDownloader::Success) << 200 << "";
    QTest::newRow("403 is forbidden") << base + "status403" << int(NetDownloader::HttpError) << 403 << "HTTP response code said error";
    QTest::newRow("404 is not found") << base + "status404" << int(NetDownloader::HttpError) << 404 << "HTTP response code said error";
    QTest::newRow("500 is a server error") << base + "status500" << int(NetDownloader::HttpError) << 500 << "HTTP response code said error";
    QTest::newRow("redirect loop ends") << base + "loop" << int(NetDownloader::TooManyRedirects) << 302 << "Number of redirects hit maximum amount";
    QTest::newRow("stall is a time-out") << base + "stall" << int(NetDownloader::Timeout) << 200 << "Timeout was reached";
    QTest::newRow("dropped connection") << base + "drop" << int(NetDownloader::NetworkError) << 200 << "Transferred a partial file";
    QTest::newRow("no such host") << "http://nonexistent-host.invalid/x" << int(NetDownloader::NetworkError) << 0 << "Couldn't resolve host name";
    QTest::newRow("nobody listening") << "http://127.0.0.1:9/x" << int(NetDownloader::NetworkError) << 0 << "Couldn't connect to server";
}

void TestNetDownloader::endsWithItsStatus()
{
    QFETCH(QString, url);
    QFETCH(int, status);
    QFETCH(int, statusCode);
    QFETCH(QString, error);
    NetDownloader downloader(0, url, true);
    const Result result = download(downloader, 1);
    QCOMPARE(int(result.status), status);
    QCOMPARE(result.statusCode, statusCode);
    QCOMPARE(result.error, error);
    if (status == NetDownloader::Success)
        QVERIFY(result.body == mBody);
}

void TestNetDownloader::resumesFromAnOffset_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<int>("statusCode");
    QTest::addColumn<int>("firstByte");
    QTest::newRow("ranges served: the rest only") << "/whole" << 206 << 1000000;
    QTest::newRow("ranges not served: everything again") << "/noranges" << 200 << 0;
}

void TestNetDownloader::resumesFromAnOffset()
{
    QFETCH(QString, path);
    QFETCH(int, statusCode);
    QFETCH(int, firstByte);
    NetDownloader downloader(0, mServer.url(path).toString(), true);
    downloader.addHeader(QStringLiteral("Range"), QStringLiteral("bytes=1000000-"));
    const Result result = download(downloader);
    QCOMPARE(result.status, NetDownloader::Success);
    QCOMPARE(result.statusCode, statusCode);
    QVERIFY(result.body == mBody.mid(firstByte));
    QCOMPARE(downloader.hasResponseHeader("accept-ranges"), statusCode == 206);
}

void TestNetDownloader::redirectIsReportedAndFollowed()
{
    NetDownloader downloader(0, mServer.url(QStringLiteral("/hop")).toString(), true);
    const Result result = download(downloader);
    QCOMPARE(result.status, NetDownloader::Success);
    QCOMPARE(result.redirects, QStringList{mServer.url(QStringLiteral("/whole")).toString()});
    QVERIFY(result.body == mBody);
}

void TestNetDownloader::icyStatusLineIsAcceptedWithItsHeaders()
{
    TestHttpResource radio;
    radio.icy = true;
    radio.body = pattern(8192);
    radio.bytesPerSecond = 64000;
    mServer.setResource(QStringLiteral("/radio"), radio);
    NetDownloader downloader(0, mServer.url(QStringLiteral("/radio")).toString(), false);
    QSignalSpy headers(&downloader, &NetDownloader::metaDataChanged);
    QSignalSpy data(&downloader, &NetDownloader::dataAvailable);
    downloader.startDownload();
    QVERIFY(headers.wait(5000));
    QCOMPARE(downloader.statusCode(), 200);
    QCOMPARE(downloader.responseHeader("icy-name"), QByteArray("Test Radio"));
    QVERIFY(data.wait(5000));
    QSignalSpy done(&downloader, &NetDownloader::downloadComplete);
    downloader.abort();
    QVERIFY(done.wait(5000));
    QCOMPARE(done.first().at(1).value<NetDownloader::Status>(), NetDownloader::Aborted);
}

void TestNetDownloader::bytesAreCountedByCategory()
{
    NetStats::ConnectionUsageDataValue usage(QStringLiteral("TEST_usage"));
    NetDownloader::setNetStats(&usage);
    NetDownloader downloader(7, mServer.url(QStringLiteral("/whole")).toString(), true);
    QCOMPARE(download(downloader).status, NetDownloader::Success);
    NetDownloader::setNetStats(nullptr);
    const NetStats::ConnectionUsage counted = usage.value();
    QCOMPARE(counted.categories.value(7).received, quint64(mBody.size()));
    QVERIFY(counted.categories.value(7).sent > 0);   // the request line and headers
    QVERIFY(!counted.categories.contains(0));
}

void TestNetDownloader::strictTlsRefusesToSkipVerification()
{
    QVERIFY(ConfigStore::instance()->set(QStringLiteral("net/allow_insecure_tls"), QStringLiteral("false"), nullptr));
    LogCapture log;
    NetDownloader downloader(0, mServer.url(QStringLiteral("/whole")).toString(), true);
    downloader.setSSLPeerVerificationMode(QSslSocket::VerifyNone);
    QCOMPARE(download(downloader).status, NetDownloader::Success);
    ConfigStore::instance()->unset(QStringLiteral("net/allow_insecure_tls"));
    QCOMPARE(log.lines(), QStringList{"configure(): not skipping certificate verification for " + mServer.url(QStringLiteral("/whole")).toString()
                                      + ": net/allow_insecure_tls is false"});
}

// The receiver takes its time with every chunk while a server on another thread sends as fast
// as it can; the downloader pauses the transfer instead of piling up what arrives meanwhile.
void TestNetDownloader::slowConsumerKeepsMemoryBounded()
{
    QThread serverThread;
    auto* fastServer = new TestHttpServer;
    TestHttpResource whole;
    whole.body = mBody;
    fastServer->setResource(QStringLiteral("/whole"), whole);
    fastServer->moveToThread(&serverThread);
    serverThread.start();
    const auto stopServer = qScopeGuard([&] {
        // Its sockets' pending deletions run first, then the server goes, on its own thread.
        QMetaObject::invokeMethod(fastServer, [fastServer] { QCoreApplication::sendPostedEvents(); delete fastServer; },
                                  Qt::BlockingQueuedConnection);
        serverThread.quit();
        serverThread.wait();
    });
    bool listening = false;
    QMetaObject::invokeMethod(fastServer, [&] { listening = fastServer->start(); }, Qt::BlockingQueuedConnection);
    QVERIFY(listening);
    NetDownloader downloader(0, fastServer->url(QStringLiteral("/whole")).toString(), true);
    connect(&downloader, &NetDownloader::dataAvailable, this, [] { QThread::msleep(20); });
    const Result result = download(downloader);
    QCOMPARE(result.status, NetDownloader::Success);
    QVERIFY(result.body == mBody);
    QVERIFY2(result.largestChunk <= 1024 * 1024 + 256 * 1024, qPrintable(QString::number(result.largestChunk)));
}

QTEST_GUILESS_MAIN(TestNetDownloader)
#include "tst_net_downloader.moc"
