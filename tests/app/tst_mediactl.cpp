// cabin-mediactl against a real server on a private bus: answers, exit statuses and waiting.

#include "tests/support/PrivateBus.h"

#include <QtDBus>
#include <QtTest>

namespace {

QString binary(const char* name) { return qEnvironmentVariable("CABIN_BIN_DIR") + QLatin1Char('/') + QLatin1String(name); }

// A service that takes every call and never answers, to see the client give up.
class SilentService : public QDBusVirtualObject
{
public:
    QString introspect(const QString&) const override { return QString(); }
    bool handleMessage(const QDBusMessage& m, const QDBusConnection&) override { m.setDelayedReply(true); ++calls; return true; }
    int calls = 0;
};

struct Run { int status = -1; QString out, err; };

} // namespace

class TestMediaCtl : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QVERIFY(mBus.isRunning());
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), mHome.path());
        env.insert(QStringLiteral("XDG_CACHE_HOME"), mHome.path());
        mServer.setProcessEnvironment(env);
        mServer.setReadChannel(QProcess::StandardError);
        mServer.start(binary("cabin-media-server"), {"--set", "service/bus=" + mBus.address()});
        QByteArray log;
        const QDeadlineTimer deadline(20000);
        while (!log.contains("run(): running") && mServer.waitForReadyRead(int(deadline.remainingTime())))
            log += mServer.readAllStandardError();
        QVERIFY2(log.contains("run(): running"), log.constData());
    }

    void cleanupTestCase()
    {
        mServer.terminate();
        QVERIFY(mServer.waitForFinished(10000) && mServer.exitStatus() == QProcess::NormalExit && mServer.exitCode() == 0);
    }

    void answersAndStatuses_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("out");
        QTest::addColumn<QString>("err");
        // Nothing is loaded yet: play is refused.
        QTest::newRow("false answer is status 1") << QStringList{"play", "5000"} << 1 << "false\n" << "";
        QTest::newRow("load builds the item and answers")
            << QStringList{"load", "http://127.0.0.1/a.mp3", "--cache-key", "a", "--start", "1000", "--on-deck", "http://127.0.0.1/b.mp3"}
            << 0 << "true\n" << "";
        QTest::newRow("service status is JSON") << QStringList{"service-status"} << 0 << "{\"uptime\":" << "";
        QTest::newRow("valid value prints it") << QStringList{"get", "MEDIA2_bufferProgress"} << 0 << "0\n" << "";
        QTest::newRow("invalid value is status 1") << QStringList{"get", "LINK_linkState"} << 1 << "invalid\n" << "";
        QTest::newRow("set a read-only value is refused")
            << QStringList{"set", "MEDIA2_elapsedTime", "5"} << 2 << ""
            << "cabin-mediactl: set: MEDIA2_elapsedTime is read-only: only its owner sets it (com.kelvramotors.Error.ReadOnly)\n";
        QTest::newRow("get an unknown value") << QStringList{"get", "NOPE"} << 2 << ""
                                              << "cabin-mediactl: get: no data value named NOPE (com.kelvramotors.Error.UnknownValue)\n";
        QTest::newRow("values lists every value") << QStringList{"values"} << 0 << "GUI_canUseInternet\ttrue\n" << "";
        QTest::newRow("wait that never matches times out")
            << QStringList{"wait", "MEDIA2_serverState", "Playing", "--timeout", "0.2"} << 3 << ""
            << "cabin-mediactl: wait: MEDIA2_serverState did not match within 200 ms\n";
        QTest::newRow("bad number is a usage error") << QStringList{"seek", "soon"} << 2 << ""
                                                     << "cabin-mediactl: seek: MS must be a number of milliseconds\n";
        QTest::newRow("unknown subcommand")
            << QStringList{"rewind"} << 2 << "" << "cabin-mediactl: unknown subcommand \"rewind\" (see --help)\n";
        QTest::newRow("help of a subcommand") << QStringList{"wait", "--help"} << 0 << "Wait until a data value" << "";
    }

    void answersAndStatuses()
    {
        QFETCH(QStringList, args);
        QFETCH(int, status);
        QFETCH(QString, out);
        QFETCH(QString, err);
        const Run run = ctl(args);
        QCOMPARE(run.status, status);
        QVERIFY2(run.out.contains(out), qPrintable(run.out));
        QCOMPARE(run.err, err);
    }

    void waitSeesALaterChange()
    {
        QCOMPARE(ctl({"set", "GUI_canUseInternet", "true"}).status, 0);
        QProcess waiter;
        waiter.start(binary("cabin-mediactl"), {"--bus", mBus.address(), "wait", "GUI_canUseInternet", "^false$", "--timeout", "20"});
        QVERIFY(waiter.waitForStarted());
        // The waiter may subscribe before or after this write; either way it must see "false".
        QCOMPARE(ctl({"set", "GUI_canUseInternet", "false"}).status, 0);
        QVERIFY(waiter.waitForFinished(20000));
        QCOMPARE(waiter.exitCode(), 0);
        QCOMPARE(QString::fromUtf8(waiter.readAllStandardOutput()), QStringLiteral("false\n"));
    }

    // The request's own time-out (3000 ms for pause) is the call's time-out; then exit status 3.
    void unansweredRequestTimesOut()
    {
        PrivateBus bus;
        QDBusConnection connection = QDBusConnection::connectToBus(bus.address(), QStringLiteral("silent"));
        SilentService silent;
        QVERIFY(connection.registerVirtualObject(QStringLiteral("/MediaServer2"), &silent));
        QVERIFY(connection.registerService(QStringLiteral("com.kelvramotors.MediaServer2")));
        QProcess client;
        QSignalSpy finished(&client, &QProcess::finished);
        client.start(binary("cabin-mediactl"), {"--bus", bus.address(), "pause"});
        QElapsedTimer elapsed;
        elapsed.start();
        QVERIFY(finished.wait(20000));   // runs this thread's event loop, which the silent service needs
        QCOMPARE(client.exitCode(), 3);
        QCOMPARE(QString::fromUtf8(client.readAllStandardError()), QStringLiteral("cabin-mediactl: pause: no answer within 3000 ms\n"));
        // QtDBus times calls with coarse timers, which may fire up to 5 % early.
        QVERIFY2(elapsed.elapsed() >= 2800, qPrintable(QStringLiteral("the client gave up after %1 ms").arg(elapsed.elapsed())));
        QCOMPARE(silent.calls, 1);
        connection.unregisterObject(QStringLiteral("/MediaServer2"));
        QDBusConnection::disconnectFromBus(QStringLiteral("silent"));
    }

private:
    Run ctl(const QStringList& args)
    {
        QProcess process;
        process.start(binary("cabin-mediactl"), QStringList{"--bus", mBus.address()} + args);
        if (!process.waitForFinished(20000))
            return {};
        const int status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        return {status, QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
    }

    PrivateBus mBus;
    QTemporaryDir mHome;
    QProcess mServer;
};

QTEST_GUILESS_MAIN(TestMediaCtl)
#include "tst_mediactl.moc"
