// Playlist resolution against the loopback server. Every failure, and every entry of a scheme
// other than http or https, answers with the requested URL; there is always exactly one answer.

#include "platform/net/URLResolver.h"
#include "tests/support/LogCapture.h"
#include "tests/support/TestHttpServer.h"

#include <QtTest>

class TestUrlResolver : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { QVERIFY(mServer.start()); }
    void answersOnce_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("resolved");   // "" = the requested URL; "/x" = on this server
        QTest::addColumn<QString>("logged");
        QTest::addColumn<QString>("movedTo");    // "" = served at path; else path redirects here
        QTest::newRow("pls gives its first file") << "/radio.pls"
            << QByteArray("[playlist]\nNumberOfEntries=2\nFile2=http://b.example/2\nFile1=http://a.example/1\nTitle1=A\n") << 200
            << "http://a.example/1" << "" << "";
        QTest::newRow("m3u gives its first line, past blank ones and one of spaces") << "/radio.m3u"
            << QByteArray("\n \nhttp://a.example/live\nhttp://b.example/\n") << 200 << "http://a.example/live" << "" << "";
        QTest::newRow("extended m3u skips its comments") << "/radio.m3u8"
            << QByteArray("#EXTM3U\r\n#EXTINF:-1,Station\r\nhttp://a.example/x.mp3\r\n") << 200 << "http://a.example/x.mp3" << "" << "";
        QTest::newRow("pls number too long for an int is not the lowest") << "/long.pls"
            << QByteArray("[playlist]\nFile8577777777=http://b.example/big\nFile10=http://a.example/10\n") << 200
            << "http://a.example/10" << "" << "";
        QTest::newRow("empty playlist") << "/empty.pls" << QByteArray("[playlist]\nNumberOfEntries=0\n") << 200 << ""
            << "lists no stream" << "";
        QTest::newRow("missing playlist") << "/gone.m3u" << QByteArray("no") << 404 << "" << "cannot fetch playlist" << "";
        QTest::newRow("oversized playlist") << "/huge.m3u" << QByteArray(70 * 1024, 'x') << 200 << "" << "is larger than 65536 bytes" << "";
        QTest::newRow("not a playlist: no request") << "/song.mp3" << QByteArray() << -1 << "" << "" << "";
        QTest::newRow("relative entry is resolved where the redirect led") << "/old/radio.m3u" << QByteArray("stream/live.mp3\n") << 200
            << "/new/stream/live.mp3" << "" << "/new/radio.m3u";
        QTest::newRow("hls playlist is left to the player") << "/live/index.m3u8"
            << QByteArray("#EXTM3U\n#EXT-X-TARGETDURATION:10\n#EXTINF:10,\nsegment1.ts\n") << 200 << "" << "" << "";
        QTest::newRow("file entry is refused") << "/local.m3u" << QByteArray("file:///etc/shadow\n") << 200 << ""
            << "not http or https" << "";
    }
    void answersOnce()
    {
        QFETCH(QString, path);
        QFETCH(QByteArray, body);
        QFETCH(int, status);
        QFETCH(QString, resolved);
        QFETCH(QString, logged);
        QFETCH(QString, movedTo);
        if (status > 0) {
            TestHttpResource resource;
            resource.body = body;
            resource.status = status;
            mServer.setResource(movedTo.isEmpty() ? path : movedTo, resource);
        }
        if (!movedTo.isEmpty()) {
            TestHttpResource moved;
            moved.redirectTo = movedTo.toUtf8();
            mServer.setResource(path, moved);
        }
        const QString requested = mServer.url(path).toString();
        const QString expected = resolved.isEmpty() ? requested : resolved.startsWith(QLatin1Char('/')) ? mServer.url(resolved).toString() : resolved;
        LogCapture log;
        URLResolver resolver(requested);
        QSignalSpy answers(&resolver, &URLResolver::urlResolved);
        resolver.resolve();
        QCOMPARE(answers.size(), 0);   // never during resolve() itself
        QVERIFY(answers.wait(10000));
        QCOMPARE(answers.first().at(0).toString(), requested);
        QCOMPARE(answers.first().at(1).toString(), expected);
        QCoreApplication::processEvents();
        QCOMPARE(answers.size(), 1);
        QCOMPARE(mServer.requestCount(path), status > 0 ? 1 : 0);
        if (!logged.isEmpty())
            QVERIFY2(log.hasLineContaining(logged), qPrintable(log.lines().join(QLatin1Char('\n'))));
    }

private:
    TestHttpServer mServer;
};

QTEST_GUILESS_MAIN(TestUrlResolver)
#include "tst_url_resolver.moc"
