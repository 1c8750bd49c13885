// The real cabin-media-server on a private bus, called with raw D-Bus messages: both argument
// forms, D-Bus's own errors for bad calls, large and many calls, introspection, the status
// report and the data values object. This build has no playback engine, so every yes/no
// request answers false at once, which makes the answers deterministic.

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
    if (value.userType() == qMetaTypeId<QDBusArgument>())
        return value.value<QDBusArgument>().currentSignature();
    return QString::fromLatin1(QDBusMetaType::typeToSignature(value.metaType()));
}

// The element of an introspection document from `openTag` to its end tag; empty when absent.
QString elementXml(const QString& xml, const QString& openTag)
{
    const int start = xml.indexOf(openTag);
    const int end = start < 0 ? -1 : xml.indexOf(openTag.startsWith("<method") ? "</method>" : "</signal>", start);
    return end < 0 ? QString() : xml.mid(start, end - start);
}

} // namespace

// A dbus-daemon and the server process on it, with settings and cache in a directory of their
// own. stop() sends SIGTERM, as the system does; the destructor stops what still runs.
class ServerOnPrivateBus
{
public:
    ~ServerOnPrivateBus() { stop(); }

    QString address() const { return mBus.address(); }
    QByteArray log() const { return mLog; }

    // True once the server logged that its event loop runs.
    bool start()
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("XDG_CONFIG_HOME", mHome.filePath("config"));
        env.insert("XDG_CACHE_HOME", mHome.filePath("cache"));
        mProcess.setProcessEnvironment(env);
        mProcess.setReadChannel(QProcess::StandardError);
        const QString dir = qEnvironmentVariable("CABIN_BIN_DIR", QCoreApplication::applicationDirPath());
        mProcess.start(dir + "/cabin-media-server", {"--set", "service/bus=" + mBus.address()});
        const QDeadlineTimer deadline(15000);
        if (!mBus.isRunning() || !mProcess.waitForStarted(int(deadline.remainingTime())))
            return false;
        while (!mLog.contains("run(): running") && mProcess.waitForReadyRead(int(deadline.remainingTime())))
            mLog += mProcess.readAllStandardError();
        return mLog.contains("run(): running");
    }

    // The exit code after SIGTERM; -1 when the process crashed or had to be killed.
    int stop()
    {
        mProcess.terminate();
        if (mProcess.state() != QProcess::NotRunning && !mProcess.waitForFinished(10000))
            mProcess.kill();
        mProcess.waitForFinished(5000);
        mLog += mProcess.readAllStandardError();
        return mProcess.exitStatus() == QProcess::NormalExit ? mProcess.exitCode() : -1;
    }

private:
    PrivateBus mBus;
    QTemporaryDir mHome;
    QProcess mProcess;
    QByteArray mLog;
};

class TestServiceBus : public QObject
{
    Q_OBJECT
public slots:
    // Collects the Changed signals of /DataValues in their arrival order as (name, valid, value).
    void recordChange(const QDBusMessage& signal)
    {
        const QVariantList args = signal.arguments();
        mChanges.append({args.value(0), args.value(1), args.value(2).value<QDBusVariant>().variant()});
    }

private slots:
    void init()
    {
        dropConnection();   // a failed init() is not followed by cleanup()
        mServer = std::make_unique<ServerOnPrivateBus>();
        QVERIFY2(mServer->start(), mServer->log().constData());
        mConnection = QDBusConnection::connectToBus(mServer->address(), "test");
        QVERIFY2(mConnection.isConnected(), qPrintable(mConnection.lastError().message()));
        mChanges.clear();
        QVERIFY(mConnection.connect(kService, kValues, kValuesIf, "Changed", this, SLOT(recordChange(QDBusMessage))));
    }

    void cleanup()
    {
        dropConnection();
        QVERIFY2(mServer->stop() == 0, mServer->log().constData());
        mServer.reset();
    }

    void answersCalls_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantList>("args");
        QTest::addColumn<QVariantList>("answer");
        const QVariantList no{false};
        QTest::newRow("positional play(i) answers false") << "play" << QVariantList{5000} << no;
        QTest::newRow("named play(a{sv}) answers the same") << "play" << QVariantList{QVariantMap{{"milliSecondsStartPos", 5000}}} << no;
        QTest::newRow("named play with an extra key still answers")
            << "play" << QVariantList{QVariantMap{{"milliSecondsStartPos", 5000}, {"extra", true}}} << no;
        QTest::newRow("play with too many positional arguments still answers") << "play" << QVariantList{5000, "x"} << no;
        QTest::newRow("a one megabyte file name is answered") << "playMediaFile" << QVariantList{QString(1 << 20, 'a')} << no;
        QTest::newRow("killBufferDownload answers with no arguments") << "killBufferDownload" << QVariantList() << QVariantList();
    }

    // Every row also proves that the server still answers afterwards.
    void answersCalls()
    {
        QFETCH(QString, method);
        QFETCH(QVariantList, args);
        QFETCH(QVariantList, answer);
        const QDBusMessage reply = call(kServer, kServerIf, method, args);
        QVERIFY2(reply.type() == QDBusMessage::ReplyMessage, qPrintable(reply.errorName() + ": " + reply.errorMessage()));
        QCOMPARE(reply.arguments(), answer);
        QVERIFY(serviceStatus().contains("requests"));
    }

    void refusesBadCalls_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("interface");
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantList>("args");
        QTest::addColumn<QString>("error");   // empty: whichever error D-Bus gives
        QTest::addColumn<QString>("mention");
        const QString position = "milliSecondsStartPos";
        const QString nothing = "com.kelvramotors.Nothing";
        const QString unknownInterface = "org.freedesktop.DBus.Error.UnknownInterface";
        QTest::newRow("a string position is InvalidArgs naming the argument")
            << kServer << kServerIf << "play" << QVariantList{"5000"} << kInvalidArgs << position;
        QTest::newRow("a named string position is InvalidArgs naming the argument")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, "5000"}}} << kInvalidArgs << position;
        QTest::newRow("an unknown method is UnknownMethod")
            << kServer << kServerIf << "noSuchMethod" << QVariantList() << "org.freedesktop.DBus.Error.UnknownMethod" << "noSuchMethod";
        QTest::newRow("an unknown interface on the server object is UnknownInterface")
            << kServer << nothing << "play" << QVariantList{5000} << unknownInterface << nothing;
        QTest::newRow("an unknown interface on the values object is UnknownInterface")
            << kValues << nothing << "List" << QVariantList() << unknownInterface << nothing;
        QTest::newRow("an unknown object path is an error") << "/NoSuchObject" << kServerIf << "play" << QVariantList{5000} << "" << "";
    }

    // Every row also proves that the server still answers afterwards.
    void refusesBadCalls()
    {
        QFETCH(QString, path);
        QFETCH(QString, interface);
        QFETCH(QString, method);
        QFETCH(QVariantList, args);
        QFETCH(QString, error);
        QFETCH(QString, mention);
        const QDBusMessage reply = call(path, interface, method, args);
        QCOMPARE(reply.type(), QDBusMessage::ErrorMessage);
        if (!error.isEmpty())
            QCOMPARE(reply.errorName(), error);
        QVERIFY2(reply.errorMessage().contains(mention), qPrintable(reply.errorMessage()));
        QVERIFY(serviceStatus().contains("requests"));
    }

    void answersEveryCallOfAFlood_data()
    {
        QTest::addColumn<int>("calls");
        QTest::newRow("ten thousand status calls at once are all answered and counted") << 10000;
    }

    void answersEveryCallOfAFlood()
    {
        QFETCH(int, calls);
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
        QTest::newRow("ServiceStatus returns a string") << kServer << "<method name=\"ServiceStatus\">" << "type=\"s\" direction=\"out\"";
        QTest::newRow("Get takes a name") << kValues << "<method name=\"Get\">" << "<arg name=\"name\" type=\"s\" direction=\"in\"/>";
        QTest::newRow("List returns names") << kValues << "<method name=\"List\">" << "type=\"as\" direction=\"out\"";
        QTest::newRow("Set takes a variant") << kValues << "<method name=\"Set\">" << "<arg name=\"value\" type=\"v\" direction=\"in\"/>";
        QTest::newRow("Changed carries a variant") << kValues << "<signal name=\"Changed\">" << "<arg name=\"value\" type=\"v\"/>";
    }

    void describesItself()
    {
        QFETCH(QString, path);
        QFETCH(QString, element);
        QFETCH(QString, fragment);
        const QString xml = call(path, "org.freedesktop.DBus.Introspectable", "Introspect").arguments().value(0).toString();
        const QString found = elementXml(xml, element);
        QVERIFY2(!found.isEmpty(), qPrintable(xml));
        QVERIFY2(found.contains(fragment), qPrintable(found));
    }

    void reportsServiceStatus_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<int>("type");
        for (const char* key : {"uptime", "requests", "avgtime", "maxtime"})
            QTest::addRow("%s is a number", key) << QString(key) << int(QJsonValue::Double);
        QTest::newRow("info is a string") << "info" << int(QJsonValue::String);
    }

    void reportsServiceStatus()
    {
        QFETCH(QString, key);
        QFETCH(int, type);
        const QByteArray text = call(kServer, kServerIf, "ServiceStatus").arguments().value(0).toString().toUtf8();
        const QJsonDocument document = QJsonDocument::fromJson(text);
        QVERIFY2(document.isObject(), text.constData());
        QCOMPARE(int(document.object().value(key).type()), type);
    }

    void listsAndReadsDataValues_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QString>("signature");
        QTest::addColumn<QVariant>("value");   // not compared for containers
        const QVariant none = QString();
        for (const char* name : {"MEDIA2_serverState", "MEDIA2_nowPlayingTitle", "MEDIA2_streamBitRate", "MEDIA2_totalBytes",
                                 "MEDIA2_downloadedBytes", "MEDIA2_elapsedTime", "LINK_linkState"})
            QTest::addRow("%s has no value before anything", name) << QString(name) << false << "s" << none;
        QTest::newRow("MEDIA2_bufferProgress is a valid zero from the start") << "MEDIA2_bufferProgress" << true << "d" << QVariant(0.0);
        QTest::newRow("MEDIA2_streamCached reads false") << "MEDIA2_streamCached" << true << "b" << QVariant(false);
        QTest::newRow("MEDIA2_playingCustomMedia reads false") << "MEDIA2_playingCustomMedia" << true << "b" << QVariant(false);
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
    }

    // A refused value reads the same afterwards and is not broadcast. A switch of internet use
    // made afterwards ends the broadcasts to look at (the bus keeps one sender's messages in order).
    void setsOnlyWritableValues()
    {
        QFETCH(QString, name);
        QFETCH(QVariant, value);
        QFETCH(QString, error);
        const QVariantList before = valueOf(name);
        const QDBusMessage reply = call(kValues, kValuesIf, "Set", {name, QVariant::fromValue(QDBusVariant(value))});
        QCOMPARE(reply.errorName(), error);
        QCOMPARE(reply.arguments().isEmpty(), error.isEmpty());
        QCOMPARE(valueOf(name), (error.isEmpty() ? QVariantList{true, value} : before));
        const bool marker = !valueOf(kInternet).value(1).toBool();
        QCOMPARE(call(kValues, kValuesIf, "Set", {kInternet, QVariant::fromValue(QDBusVariant(marker))}).type(), QDBusMessage::ReplyMessage);
        QTRY_VERIFY(!mChanges.isEmpty() && mChanges.last() == (QVariantList{kInternet, true, marker}));
        const QList<QVariantList> accepted{{name, true, value}, {kInternet, true, marker}};
        QCOMPARE(mChanges, error.isEmpty() ? accepted : accepted.mid(1));
    }

private:
    void dropConnection()
    {
        mConnection = QDBusConnection(QString());
        QDBusConnection::disconnectFromBus("test");
    }

    QDBusMessage call(const QString& path, const QString& interface, const QString& method, const QVariantList& args = {})
    {
        QDBusMessage message = QDBusMessage::createMethodCall(kService, path, interface, method);
        message.setArguments(args);
        return mConnection.call(message, QDBus::Block, kCallTimeoutMs);
    }

    QJsonObject serviceStatus()
    {
        const QString text = call(kServer, kServerIf, "ServiceStatus").arguments().value(0).toString();
        return QJsonDocument::fromJson(text.toUtf8()).object();
    }

    // (valid, value) of a data value, or (error name) when Get is refused.
    QVariantList valueOf(const QString& name)
    {
        const QDBusMessage reply = call(kValues, kValuesIf, "Get", {name});
        if (reply.type() != QDBusMessage::ReplyMessage)
            return {reply.errorName()};
        return {reply.arguments().value(0), reply.arguments().value(1).value<QDBusVariant>().variant()};
    }

    std::unique_ptr<ServerOnPrivateBus> mServer;
    QDBusConnection mConnection{QString()};
    QList<QVariantList> mChanges;
};

QTEST_GUILESS_MAIN(TestServiceBus)
#include "tst_service_bus.moc"
