// The real cabin-media-server on a private bus, called with raw D-Bus messages. Nothing is
// loaded, so a play request is refused at once: the answers are deterministic.

#include "tests/support/PrivateBus.h"

#include <QtDBus>
#include <QtTest>

#include <memory>

namespace {

const QString kService = QStringLiteral("com.kelvramotors.MediaServer2");
const QString kServer = QStringLiteral("/MediaServer2");
const QString kServerIf = QStringLiteral("com.kelvramotors.MediaServer2");
const QString kValues = QStringLiteral("/DataValues");
const QString kValuesIf = QStringLiteral("com.kelvramotors.DataValues");
const QString kInvalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
const QString kInternet = QStringLiteral("GUI_canUseInternet");
const int kCallTimeoutMs = 10000;

// The D-Bus signature of a value that arrived inside a variant.
QString signatureOf(const QVariant& value)
{
    return value.userType() == qMetaTypeId<QDBusArgument>() ? value.value<QDBusArgument>().currentSignature()
                                                            : QString::fromLatin1(QDBusMetaType::typeToSignature(value.metaType()));
}

} // namespace

// One server for the whole suite, with settings and cache of its own; every row that calls it
// also proves that it still answers afterwards, and it must end with status 0 on SIGTERM.
class TestServiceBus : public QObject
{
    Q_OBJECT
public slots:
    // Collects the Changed signals of /DataValues in their arrival order as (name, valid, value),
    // leaving out the traffic statistics, which change with every call the tests make.
    void recordChange(const QDBusMessage& signal)
    {
        const QVariantList args = signal.arguments();
        if (args.value(0).toString() == QLatin1String("MEDIA2_connNetStats"))
            return;
        mChanges.append({args.value(0), args.value(1), args.value(2).value<QDBusVariant>().variant()});
    }

private slots:
    void initTestCase()
    {
        QVERIFY(mBus.isRunning());
        QVERIFY(startServer(mServer, mBus.address(), mHome));
        mConnection = QDBusConnection::connectToBus(mBus.address(), "test");
        QVERIFY2(mConnection.isConnected(), qPrintable(mConnection.lastError().message()));
        QVERIFY(mConnection.connect(kService, kValues, kValuesIf, "Changed", this, SLOT(recordChange(QDBusMessage))));
    }

    void cleanupTestCase()
    {
        mConnection = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus("test");
        mServer.terminate();
        QVERIFY(mServer.waitForFinished(10000));
        QVERIFY2(mServer.exitStatus() == QProcess::NormalExit && mServer.exitCode() == 0, mServer.readAllStandardError().constData());
    }

    void answersCalls_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("interface");
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantList>("args");
        QTest::addColumn<QVariantList>("answer");
        QTest::addColumn<QString>("error");   // empty: answered
        QTest::addColumn<QString>("mention");   // in the error message
        const QString position = "milliSecondsStartPos", nothing = "com.kelvramotors.Nothing";
        const QVariantList no{false}, none;
        QTest::newRow("positional play(i) answers false") << kServer << kServerIf << "play" << QVariantList{5000} << no << "" << "";
        QTest::newRow("named play(a{sv}) answers the same")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, 5000}}} << no << "" << "";
        QTest::newRow("named play with an extra key still answers")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, 5000}, {"extra", true}}} << no << "" << "";
        QTest::newRow("a one megabyte file name is answered")
            << kServer << kServerIf << "playMediaFile" << QVariantList{QString(1 << 20, 'a')} << QVariantList{true} << "" << "";
        QTest::newRow("killBufferDownload answers with no arguments")
            << kServer << kServerIf << "killBufferDownload" << none << none << "" << "";
        QTest::newRow("a string position is InvalidArgs naming the argument")
            << kServer << kServerIf << "play" << QVariantList{"5000"} << none << kInvalidArgs << position;
        QTest::newRow("a named string position is InvalidArgs naming the argument")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, "5000"}}} << none << kInvalidArgs << position;
        QTest::newRow("a fractional position is InvalidArgs") << kServer << kServerIf << "play" << QVariantList{2.5} << none
                                                               << kInvalidArgs << position;
        QTest::newRow("a fractional named position is InvalidArgs")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, 2.5}}} << none << kInvalidArgs << position;
        QVariantMap flood;
        for (int i = 0; i < 1000; ++i)
            flood.insert(QStringLiteral("undeclared%1").arg(i), i);
        QTest::newRow("a thousand undeclared named arguments are InvalidArgs")
            << kServer << kServerIf << "play" << QVariantList{flood} << none << kInvalidArgs << "undeclared arguments";
        QTest::newRow("an unknown method is UnknownMethod") << kServer << kServerIf << "noSuchMethod" << QVariantList() << none
                                                            << "org.freedesktop.DBus.Error.UnknownMethod" << "noSuchMethod";
        QTest::newRow("an unknown interface on the server object is UnknownInterface")
            << kServer << nothing << "play" << QVariantList{5000} << none << "org.freedesktop.DBus.Error.UnknownInterface" << nothing;
        QTest::newRow("an unknown interface on the values object is UnknownInterface")
            << kValues << nothing << "List" << QVariantList() << none << "org.freedesktop.DBus.Error.UnknownInterface" << nothing;
    }

    void answersCalls()
    {
        QFETCH(QString, path);
        QFETCH(QString, interface);
        QFETCH(QString, method);
        QFETCH(QVariantList, args);
        QFETCH(QVariantList, answer);
        QFETCH(QString, error);
        QFETCH(QString, mention);
        const QDBusMessage reply = call(path, interface, method, args);
        QCOMPARE(reply.errorName(), error);
        QVERIFY2(reply.errorMessage().contains(mention), qPrintable(reply.errorMessage()));
        if (error.isEmpty())
            QCOMPARE(reply.arguments(), answer);
        QVERIFY(serviceStatus().contains("requests"));
    }

    void answersEveryCallOfAFlood()
    {
        const int calls = 10000;
        const qint64 before = serviceStatus().value("requests").toInteger(-1);
        QVERIFY(before >= 0);
        const QDBusMessage message = QDBusMessage::createMethodCall(kService, kServer, kServerIf, "ServiceStatus");
        QList<QDBusPendingCall> pending;
        for (int i = 0; i < calls; ++i)
            pending.append(mConnection.asyncCall(message, kCallTimeoutMs));
        int answered = 0;
        for (QDBusPendingCall& each : pending) {
            each.waitForFinished();
            answered += each.reply().type() == QDBusMessage::ReplyMessage ? 1 : 0;
        }
        QCOMPARE(answered, calls);
        QVERIFY(serviceStatus().value("requests").toInteger(-1) >= before + calls);
    }

    void describesItself_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("element");
        QTest::addColumn<QString>("fragment");
        QTest::newRow("play declares its start position")
            << kServer << "<method name=\"play\">" << "<arg name=\"milliSecondsStartPos\" type=\"i\" direction=\"in\"/>";
        QTest::newRow("List returns names") << kValues << "<method name=\"List\">" << "type=\"as\" direction=\"out\"";
        QTest::newRow("Set takes a variant") << kValues << "<method name=\"Set\">" << "<arg name=\"value\" type=\"v\" direction=\"in\"/>";
        QTest::newRow("Changed carries a variant") << kValues << "<signal name=\"Changed\">" << "<arg name=\"value\" type=\"v\"/>";
    }

    // The element runs from its opening tag to the first end tag after it.
    void describesItself()
    {
        QFETCH(QString, path);
        QFETCH(QString, element);
        QFETCH(QString, fragment);
        const QString xml = call(path, "org.freedesktop.DBus.Introspectable", "Introspect").arguments().value(0).toString();
        QVERIFY2(xml.contains(element), qPrintable(xml));
        const QString found = xml.section(element, 1, 1).section("</", 0, 0);
        QVERIFY2(found.contains(fragment), qPrintable(found));
    }

    void listsAndReadsDataValues_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QString>("signature");
        QTest::addColumn<QVariant>("value");   // not compared for containers
        QTest::newRow("MEDIA2_serverState is NoMedia from the start") << "MEDIA2_serverState" << true << "ai" << QVariant();
        for (const char* name : {"MEDIA2_nowPlayingTitle", "MEDIA2_streamBitRate", "MEDIA2_totalBytes",
                                 "MEDIA2_downloadedBytes", "MEDIA2_elapsedTime", "LINK_linkState"})
            QTest::addRow("%s has no value before anything", name) << QString(name) << false << "s" << QVariant(QString());
        QTest::newRow("MEDIA2_bufferProgress is a valid zero from the start") << "MEDIA2_bufferProgress" << true << "d" << QVariant(0.0);
        QTest::newRow("MEDIA2_streamCached reads false") << "MEDIA2_streamCached" << true << "b" << QVariant(false);
        QTest::newRow("MEDIA2_connNetStats is a record") << "MEDIA2_connNetStats" << true << "a{sv}" << QVariant();
        QTest::newRow("GUI_canUseInternet allows internet use by default") << kInternet << true << "b" << QVariant(true);
    }

    void listsAndReadsDataValues()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QFETCH(QString, signature);
        QFETCH(QVariant, value);
        const QStringList names = call(kValues, kValuesIf, "List").arguments().value(0).toStringList();
        QVERIFY2(names.contains(name), qPrintable(names.join(' ')));
        const QVariantList read = valueOf(name);
        QCOMPARE(read.size(), 2);
        QCOMPARE(read.at(0), QVariant(valid));
        QCOMPARE(signatureOf(read.at(1)), signature);
        if (value.isValid())
            QCOMPARE(read.at(1), value);
    }

    void setsOnlyWritableValues_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QString>("error");   // empty: accepted, stored and broadcast
        QTest::newRow("internet use switched off is stored and broadcast") << kInternet << QVariant(false) << "";
        QTest::newRow("a read-only value is refused") << "MEDIA2_elapsedTime" << QVariant(5) << "com.kelvramotors.Error.ReadOnly";
        QTest::newRow("an unknown value is refused") << "NOPE" << QVariant(1) << "com.kelvramotors.Error.UnknownValue";
        QTest::newRow("text that is no boolean is refused") << kInternet << QVariant("maybe") << kInvalidArgs;
        QTest::newRow("an int for a boolean is refused") << kInternet << QVariant(1) << kInvalidArgs;
    }

    // A refused value reads the same afterwards and is not broadcast. A switch of internet use
    // made afterwards ends the broadcasts to look at (the bus keeps one sender's messages in order).
    void setsOnlyWritableValues()
    {
        QFETCH(QString, name);
        QFETCH(QVariant, value);
        QFETCH(QString, error);
        const QVariantList before = valueOf(name);
        mChanges.clear();   // the previous row waited for its last broadcast
        const QDBusMessage reply = call(kValues, kValuesIf, "Set", {name, QVariant::fromValue(QDBusVariant(value))});
        QCOMPARE(reply.errorName(), error);
        QCOMPARE(reply.arguments().isEmpty(), error.isEmpty());
        QCOMPARE(valueOf(name), (error.isEmpty() ? QVariantList{true, value} : before));
        const bool marker = !valueOf(kInternet).value(1).toBool();
        QCOMPARE(call(kValues, kValuesIf, "Set", {kInternet, QVariant::fromValue(QDBusVariant(marker))}).errorName(), QString());
        QTRY_VERIFY(!mChanges.isEmpty() && mChanges.last() == (QVariantList{kInternet, true, marker}));
        const QList<QVariantList> accepted{{name, true, value}, {kInternet, true, marker}};
        QCOMPARE(mChanges, error.isEmpty() ? accepted : accepted.mid(1));
    }

    // The bus daemon goes away under a running server: one line says so and the server ends
    // with status 1, so that its service manager starts it again.
    void exitsWhenTheBusGoesAway()
    {
        auto bus = std::make_unique<PrivateBus>();
        QVERIFY(bus->isRunning());
        const QString address = bus->address();
        QTemporaryDir home;
        QProcess server;
        QVERIFY(startServer(server, address, home));
        bus.reset();
        QVERIFY(server.waitForFinished(15000));
        const QByteArray log = server.readAllStandardError();
        QCOMPARE(server.exitStatus(), QProcess::NormalExit);
        QVERIFY2(server.exitCode() == 1, log.constData());
        QVERIFY2(log.contains(("lost the connection to the bus at " + address).toUtf8()), log.constData());
    }

private:
    // Starts the server with settings and cache under `home` on the bus at `address`; true once
    // it says it is running.
    static bool startServer(QProcess& server, const QString& address, const QTemporaryDir& home)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_HOME", home.filePath("config"));
        env.insert("XDG_CACHE_HOME", home.filePath("cache"));
        server.setProcessEnvironment(env);
        server.setReadChannel(QProcess::StandardError);
        server.start(qEnvironmentVariable("CABIN_BIN_DIR", QCoreApplication::applicationDirPath()) + "/cabin-media-server",
                     {"--set", "service/bus=" + address});
        QByteArray log;
        const QDeadlineTimer deadline(15000);
        while (!log.contains("run(): running") && server.waitForReadyRead(int(deadline.remainingTime())))
            log += server.readAllStandardError();
        if (!log.contains("run(): running"))
            qWarning("%s", log.constData());
        return log.contains("run(): running");
    }

    QDBusMessage call(const QString& path, const QString& interface, const QString& method, const QVariantList& args = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(kService, path, interface, method);
        message.setArguments(args);
        return mConnection.call(message, QDBus::Block, kCallTimeoutMs);
    }

    QJsonObject serviceStatus()
    {
        return QJsonDocument::fromJson(call(kServer, kServerIf, "ServiceStatus").arguments().value(0).toString().toUtf8()).object();
    }

    // (valid, value) of a data value, or (error name) when Get is refused.
    QVariantList valueOf(const QString& name)
    {
        const QDBusMessage reply = call(kValues, kValuesIf, "Get", {name});
        if (reply.type() != QDBusMessage::ReplyMessage)
            return {reply.errorName()};
        return {reply.arguments().value(0), reply.arguments().value(1).value<QDBusVariant>().variant()};
    }

    PrivateBus mBus;
    QTemporaryDir mHome;
    QProcess mServer;
    QDBusConnection mConnection{QString()};
    QList<QVariantList> mChanges;
};

QTEST_GUILESS_MAIN(TestServiceBus)
#include "tst_service_bus.moc"
