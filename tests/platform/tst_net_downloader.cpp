// Downloads against the loopback test server. Resuming with a range and ICY status lines are
// proved where they are used: the stream buffer and the live stream FIFO suites.

#include "platform/datavalue/ConnectionUsageDataValue.h"
#include "platform/config/ConfigStore.h"
#include "platform/net/NetDownloader.h"
#include "tests/support/LogCapture.h"
#include "tests/support/SelfSignedCertificate.h"
#include "tests/support/TestConfig.h"
#include "tests/support/TestHttpServer.h"

#include <QtTest>

#include <memory>
#include <utility>

namespace {

QByteArray pattern(int size)
{
    QByteArray bytes(size, Qt::Uninitialized);
    for (int i = 0; i < size; ++i)
        bytes[i] = char(i * 31 % 251);
    return bytes;
}

// A download that never ended, or ended twice, has no status.
struct Result
{
    NetDownloader::Status status = NetDownloader::Status(-1);
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
    QObject receiver;   // the connections to result end with this call: a downloader may be used again
    QObject::connect(&downloader, &NetDownloader::dataAvailable, &receiver, [&](const QByteArray& chunk) {
        result.body += chunk;
        result.largestChunk = qMax(result.largestChunk, int(chunk.size()));
    });
    QObject::connect(&downloader, &NetDownloader::redirected, &receiver, [&](const QString& url) { result.redirects.append(url); });
    QSignalSpy done(&downloader, &NetDownloader::downloadComplete);
    downloader.startDownload();
    if (!done.wait(20000))
        return result;
    QCoreApplication::processEvents();
    if (done.size() == 1)
        result.status = done.first().at(1).value<NetDownloader::Status>();
    result.statusCode = downloader.statusCode();
    result.error = downloader.errorString();
    return result;
}

// A TestHttpServer serving one body at "/whole" from its own thread, so that it keeps sending
// while the test's thread is busy in a slot.
class ServerThread
{
public:
    explicit ServerThread(const QByteArray& body)
        : mServer(new TestHttpServer)
    {
        TestHttpResource whole;
        whole.body = body;
        mServer->setResource(QStringLiteral("/whole"), whole);
        mServer->moveToThread(&mThread);
        mThread.start();
        QMetaObject::invokeMethod(mServer, [this] { mListening = mServer->start(); }, Qt::BlockingQueuedConnection);
    }

    ~ServerThread()
    {
        // Its sockets' pending deletions run first, then the server goes, on its own thread.
        TestHttpServer* server = mServer;
        QMetaObject::invokeMethod(server, [server] { QCoreApplication::sendPostedEvents(); delete server; },
                                  Qt::BlockingQueuedConnection);
        mThread.quit();
        mThread.wait();
    }

    bool listening() const { return mListening; }
    QString url() const { return mServer->url(QStringLiteral("/whole")).toString(); }

private:
    QThread mThread;
    TestHttpServer* mServer;
    bool mListening = false;
};

} // namespace

class TestNetDownloader : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QVERIFY(mServer.start());
        // The body at path, served as change says.
        const auto serve = [this](const char* path, void (*change)(TestHttpResource&)) {
            TestHttpResource resource;
            resource.body = mBody;
            change(resource);
            mServer.setResource(QLatin1String(path), resource);
        };
        serve("/whole", [](TestHttpResource&) {});
        serve("/status404", [](TestHttpResource& r) { r.status = 404; });
        serve("/stall", [](TestHttpResource& r) { r.stallAfter = 1000; });
        serve("/drop", [](TestHttpResource& r) { r.closeAfter = 5000; });
        serve("/loop", [](TestHttpResource& r) { r.redirectTo = "/loop"; });
        serve("/hop", [](TestHttpResource& r) { r.redirectTo = "/whole"; });
        serve("/toftp", [](TestHttpResource& r) { r.redirectTo = "ftp://127.0.0.1:9/x"; });
        TestHttpResource whole;
        whole.body = mBody;
        for (auto [server, certificate] : {std::pair{&mTlsServer, &mCertificate}, std::pair{&mOtherHostServer, &mOtherHostCertificate}}) {
            QVERIFY2(certificate->isValid(), qPrintable(certificate->error()));
            server->useTls(certificate->certificate(), certificate->key());
            QVERIFY(server->start());
            server->setResource(QStringLiteral("/whole"), whole);
        }
    }

    void endsWithItsStatus_data()
    {
        QTest::addColumn<QString>("url");
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("statusCode");
        QTest::addColumn<QString>("error");
        const QString base = mServer.url(QString()).toString();
        QTest::newRow("whole body") << base + "whole" << int(NetDownloader::Success) << 200 << "";
        QTest::newRow("redirect is reported and followed") << base + "hop" << int(NetDownloader::Success) << 200 << "";
        QTest::newRow("404 is not found") << base + "status404" << int(NetDownloader::HttpError) << 404 << "HTTP response code said error";
        QTest::newRow("redirect loop ends") << base + "loop" << int(NetDownloader::TooManyRedirects) << 302 << "Number of redirects hit maximum amount";
        QTest::newRow("stall is a time-out") << base + "stall" << int(NetDownloader::Timeout) << 200 << "Timeout was reached";
        QTest::newRow("dropped connection") << base + "drop" << int(NetDownloader::NetworkError) << 200 << "Transferred a partial file";
        QTest::newRow("nobody listening") << "http://127.0.0.1:9/x" << int(NetDownloader::NetworkError) << 0 << "Couldn't connect to server";
        QTest::newRow("file scheme is refused") << "file:///etc/hostname" << int(NetDownloader::NetworkError) << 0 << "Unsupported protocol";
        QTest::newRow("redirect to ftp is refused") << base + "toftp" << int(NetDownloader::NetworkError) << 302 << "Unsupported protocol";
    }
    void endsWithItsStatus()
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
        if (status != NetDownloader::Success)
            return;
        QVERIFY(result.body == mBody);
        QCOMPARE(result.redirects, url.endsWith(QLatin1String("hop")) ? QStringList{mServer.url(QStringLiteral("/whole")).toString()} : QStringList());
    }

    void bytesAreCountedByCategory()
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

    void tlsSettingsDecideWhatIsFetched_data()
    {
        QTest::addColumn<QString>("server");        // "http", "https" (for 127.0.0.1), "https other host"
        QTest::addColumn<bool>("trustIt");          // net/ca_file names the server's certificate
        QTest::addColumn<bool>("verifyPeer");
        QTest::addColumn<bool>("retryWithOldTls");
        QTest::addColumn<bool>("allowInsecure");    // net/allow_insecure_tls
        QTest::addColumn<int>("downloads");         // one after another on the same downloader
        QTest::addColumn<int>("status");
        QTest::addColumn<int>("handshakes");
        QTest::addColumn<QStringList>("warnings");  // %1: the URL
        const QString noSkip = "configure(): not skipping certificate verification for %1: net/allow_insecure_tls is false";
        const QString noRetry = "maybeRetryWithOldTls(): not retrying %1 with TLS 1.0: net/allow_insecure_tls is false";
        const int success = NetDownloader::Success;
        const int sslError = NetDownloader::SslError;
        QTest::newRow("an item's download skips verification: the body arrives whole, no retry")
            << "https" << false << false << true << true << 1 << success << 1 << QStringList();
        QTest::newRow("strict TLS refuses to skip verification, and to retry")
            << "https" << false << false << true << false << 1 << sslError << 1 << QStringList{noSkip, noRetry};
        QTest::newRow("strict TLS still fetches plain http")
            << "http" << false << false << false << false << 1 << success << 0 << QStringList{noSkip};
        QTest::newRow("verification passes a certificate of a trusted authority")
            << "https" << true << true << false << true << 1 << success << 1 << QStringList();
        QTest::newRow("verification refuses a trusted certificate made out to another host")
            << "https other host" << true << true << false << true << 1 << sslError << 1 << QStringList();
        QTest::newRow("a refused certificate is retried once with TLS 1.0, again on the next download")
            << "https" << false << true << true << true << 2 << sslError << 4 << QStringList();
    }
    // The TLS 1.0 retry's own outcome is not asserted beyond its status: OpenSSL 3 at its default
    // security level may refuse TLS 1.0 on either side, which is still an SSL error.
    void tlsSettingsDecideWhatIsFetched()
    {
        QFETCH(QString, server);
        QFETCH(bool, trustIt);
        QFETCH(bool, verifyPeer);
        QFETCH(bool, retryWithOldTls);
        QFETCH(bool, allowInsecure);
        QFETCH(int, downloads);
        QFETCH(int, status);
        QFETCH(int, handshakes);
        QFETCH(QStringList, warnings);
        const bool otherHost = server == QLatin1String("https other host");
        TestHttpServer& http = server == QLatin1String("http") ? mServer : otherHost ? mOtherHostServer : mTlsServer;
        const QString url = http.url(QStringLiteral("/whole")).toString();
        const int handshakesBefore = http.handshakeCount();
        setConfig(QStringLiteral("net/allow_insecure_tls"), allowInsecure);
        if (trustIt)
            setConfig(QStringLiteral("net/ca_file"), (otherHost ? mOtherHostCertificate : mCertificate).certificatePath());
        LogCapture log;
        NetDownloader downloader(0, url, true);
        if (!verifyPeer)
            downloader.setSSLPeerVerificationMode(QSslSocket::VerifyNone);
        downloader.setRetryWithTLSV1OnSSLError(retryWithOldTls);
        Result result;
        for (int i = 0; i < downloads; ++i)
            result = download(downloader);
        ConfigStore::instance()->unset(QStringLiteral("net/allow_insecure_tls"));
        ConfigStore::instance()->unset(QStringLiteral("net/ca_file"));
        QCOMPARE(int(result.status), status);
        QCOMPARE(http.handshakeCount() - handshakesBefore, handshakes);
        for (QString& warning : warnings)
            warning = warning.arg(url);
        QCOMPARE(log.lines().filter("net/allow_insecure_tls"), warnings);
        QVERIFY(status != NetDownloader::Success || result.body == mBody);
    }

    // A stream buffer restarts inside dataAvailable on every retry: the old downloader goes and a
    // new one, very likely at the same address, starts before the old transfer's end is handed out.
    void restartInsideDataAvailableHearsOnlyItsOwnEnd()
    {
        TestHttpResource small;
        small.body = pattern(100);
        mServer.setResource(QStringLiteral("/small"), small);
        TestHttpResource silent = small;
        silent.stallAfter = 0;
        mServer.setResource(QStringLiteral("/silent"), silent);
        std::unique_ptr<NetDownloader> second;
        std::unique_ptr<QSignalSpy> secondHeaders, secondDone;
        auto first = std::make_unique<NetDownloader>(0, mServer.url(QStringLiteral("/small")).toString(), true);
        connect(first.get(), &NetDownloader::dataAvailable, this, [&] {
            first.reset();
            second = std::make_unique<NetDownloader>(0, mServer.url(QStringLiteral("/silent")).toString(), true);
            secondHeaders = std::make_unique<QSignalSpy>(second.get(), &NetDownloader::metaDataChanged);
            secondDone = std::make_unique<QSignalSpy>(second.get(), &NetDownloader::downloadComplete);
            second->startDownload();
        });
        first->startDownload();
        QTRY_VERIFY_WITH_TIMEOUT(secondHeaders && (secondHeaders->size() > 0 || secondDone->size() > 0), 10000);
        QCOMPARE(secondDone->size(), 0);
    }

    void slowConsumerGetsBoundedChunksAndAbortEndsThem_data()
    {
        QTest::addColumn<int>("abortAt");   // 0: never
        QTest::addColumn<bool>("pauseFirst");
        QTest::newRow("never aborted: the whole body in bounded chunks") << 0 << false;
        QTest::newRow("abort drops the bytes read while the consumer was busy") << 3 << false;
        QTest::newRow("abort while paused drops the held bytes; resume brings nothing") << 3 << true;
    }
    // The receiver takes its time with every chunk while a server on another thread sends as fast
    // as it can, so bytes are waiting when the consumer aborts at the third chunk.
    void slowConsumerGetsBoundedChunksAndAbortEndsThem()
    {
        QFETCH(int, abortAt);
        QFETCH(bool, pauseFirst);
        ServerThread fast(mBody);
        QVERIFY(fast.listening());
        NetDownloader downloader(0, fast.url(), true);
        int chunks = 0;
        int chunksAfterAbort = 0;
        bool aborted = false;
        auto abort = [&] {
            aborted = true;
            downloader.abort();
            downloader.resume();
        };
        connect(&downloader, &NetDownloader::dataAvailable, this, [&] {
            chunksAfterAbort += aborted;
            QThread::msleep(20);
            if (++chunks != abortAt)
                return;
            if (!pauseFirst)
                return abort();
            downloader.pause();
            QMetaObject::invokeMethod(this, abort, Qt::QueuedConnection);
        });
        const Result result = download(downloader);
        QCOMPARE(chunksAfterAbort, 0);
        if (abortAt > 0) {
            QCOMPARE(result.status, NetDownloader::Aborted);
            return;
        }
        QCOMPARE(result.status, NetDownloader::Success);
        QVERIFY(result.body == mBody);
        QVERIFY2(result.largestChunk <= 1024 * 1024 + 256 * 1024, qPrintable(QString::number(result.largestChunk)));
    }

    void consumerPauseHoldsTheNetwork_data()
    {
        QTest::addColumn<bool>("onHeaders");
        QTest::newRow("paused on the headers, with body bytes already waiting") << true;
        QTest::newRow("paused on the first chunk") << false;
    }
    // A consumer whose disk falls behind pauses for longer than the stall time-out; the network
    // is read no further than socket buffers and the pending limit allow.
    void consumerPauseHoldsTheNetwork()
    {
        QFETCH(bool, onHeaders);
        static const QByteArray big = pattern(24 * 1024 * 1024);
        TestHttpResource resource;
        resource.body = big;
        mServer.setResource(QStringLiteral("/big"), resource);
        const qint64 sentBefore = mServer.bytesSent(QStringLiteral("/big"));
        NetDownloader downloader(0, mServer.url(QStringLiteral("/big")).toString(), true);
        downloader.setStallTimeout(1);
        QByteArray body;
        int chunksWhilePaused = 0;
        connect(&downloader, &NetDownloader::dataAvailable, this, [&](const QByteArray& chunk) {
            body += chunk;
            chunksWhilePaused += downloader.isPaused();
            if (!onHeaders && body.size() == chunk.size())
                downloader.pause();
        });
        if (onHeaders)
            connect(&downloader, &NetDownloader::metaDataChanged, &downloader, &NetDownloader::pause);
        QSignalSpy done(&downloader, &NetDownloader::downloadComplete);
        downloader.startDownload();
        QTRY_VERIFY_WITH_TIMEOUT(downloader.isPaused(), 5000);
        QVERIFY(!done.wait(3000));   // three times the stall time-out
        QCOMPARE(chunksWhilePaused, 0);
        const qint64 sentWhilePaused = mServer.bytesSent(QStringLiteral("/big")) - sentBefore;
        QVERIFY2(sentWhilePaused < 12 * 1024 * 1024, qPrintable(QString::number(sentWhilePaused)));
        downloader.resume();
        QVERIFY(!downloader.isPaused());
        QVERIFY(done.wait(20000));
        QCOMPARE(done.first().at(1).value<NetDownloader::Status>(), NetDownloader::Success);
        QVERIFY(body == big);
    }

private:
    TestHttpServer mServer;
    SelfSignedCertificate mCertificate{QStringLiteral("127.0.0.1")};
    TestHttpServer mTlsServer;   // https with mCertificate
    SelfSignedCertificate mOtherHostCertificate{QStringLiteral("media.other.example")};
    TestHttpServer mOtherHostServer;   // https at 127.0.0.1 with mOtherHostCertificate
    QByteArray mBody = pattern(3 * 1024 * 1024 + 17);
};

QTEST_GUILESS_MAIN(TestNetDownloader)
#include "tst_net_downloader.moc"
