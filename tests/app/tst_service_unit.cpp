#include "tests/support/ServerProcess.h"

#include <QDBusConnectionInterface>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QSocketNotifier>
#include <QTemporaryDir>
#include <QtTest>

#include <sys/ptrace.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

// The server as systemd runs it: the notify protocol on a datagram socket the test binds, the
// shipped unit checked by systemd's own tools, and the shipped bus policy on a system-style bus.
namespace {

// Two kicks a second: quick to see, and far above the timer's jitter under the sanitizers.
const int kWatchdogUs = 1000000;
// How long a main thread is held still: four kick periods.
const int kHeldMs = 2000;

QString sourceFile(const QString& path)
{
    return qEnvironmentVariable("CABIN_SOURCE_DIR") + QLatin1Char('/') + path;
}

QString readAll(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

// Runs a program to its end; (exit code, stdout + stderr).
QPair<int, QString> runTool(const QString& program, const QStringList& args)
{
    QProcess tool;
    tool.setProcessChannelMode(QProcess::MergedChannels);
    tool.start(program, args);
    if (!tool.waitForFinished(60000))
        return {-1, program + QStringLiteral(" did not finish")};
    return {tool.exitCode(), QString::fromUtf8(tool.readAll()).trimmed()};
}

} // namespace

class TestServiceUnit : public QObject
{
    Q_OBJECT
private slots:
    void notifiesReadyStatusAndWatchdog();
    void unitVerifiesAndIsHardened();
    void policyAdmitsOnlyTheClientsGroup_data();
    void policyAdmitsOnlyTheClientsGroup();

private:
    bool bindNotifySocket(const QString& path);
    void readNotifications();
    bool holdMainThread(pid_t pid);

    int mSocket = -1;
    QStringList mNotes;   // each datagram, in arrival order
    std::unique_ptr<QSocketNotifier> mNotifier;
    std::function<void(const QString&)> mOnNote;
};

bool TestServiceUnit::bindNotifySocket(const QString& path)
{
    mSocket = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const QByteArray encoded = QFile::encodeName(path);
    if (mSocket < 0 || size_t(encoded.size()) >= sizeof(address.sun_path))
        return false;
    std::memcpy(address.sun_path, encoded.constData(), size_t(encoded.size()));
    if (::bind(mSocket, reinterpret_cast<sockaddr*>(&address), sizeof(address)) != 0)
        return false;
    mNotifier = std::make_unique<QSocketNotifier>(mSocket, QSocketNotifier::Read);
    connect(mNotifier.get(), &QSocketNotifier::activated, this, &TestServiceUnit::readNotifications);
    return true;
}

void TestServiceUnit::readNotifications()
{
    char buffer[4096];
    ssize_t got = 0;
    while ((got = ::recv(mSocket, buffer, sizeof(buffer), 0)) > 0) {
        const QString note = QString::fromUtf8(buffer, int(got));
        mNotes.append(note);
        if (mOnNote)
            mOnNote(note);
    }
}

// Stops the main thread alone (the process's other threads run on), as a blocked event loop
// would; false when the test may not trace the server.
bool TestServiceUnit::holdMainThread(pid_t pid)
{
    int status = 0;
    return ::ptrace(PTRACE_SEIZE, pid, nullptr, nullptr) == 0 && ::ptrace(PTRACE_INTERRUPT, pid, nullptr, nullptr) == 0
        && ::waitpid(pid, &status, __WALL) == pid;
}

// READY=1 comes once the name is owned, with the state; a state change is a new STATUS= line;
// the watchdog is kicked at half its period from the event loop, so a held main thread stops
// the kicks and they resume when it runs again.
void TestServiceUnit::notifiesReadyStatusAndWatchdog()
{
    QTemporaryDir dir;
    QVERIFY(bindNotifySocket(dir.filePath("notify")));
    ServerProcess server;
    server.setEnvironment("NOTIFY_SOCKET", dir.filePath("notify"));
    server.setEnvironment("WATCHDOG_USEC", QString::number(kWatchdogUs));
    bool ownedWhenReady = false;
    mOnNote = [&](const QString& note) {
        if (note.startsWith(QLatin1String("READY=1")))
            ownedWhenReady = server.connection().isConnected()
                && server.connection().interface()->isServiceRegistered("com.kelvramotors.MediaServer2").value();
    };
    QVERIFY(server.start());
    QTRY_VERIFY(mNotes.contains("READY=1\nSTATUS=state NoMedia, NoError"));
    QVERIFY(ownedWhenReady);
    QVERIFY(server.logHas(QStringLiteral("watchdog kicked every %1 ms").arg(kWatchdogUs / 2000)));
    QTRY_VERIFY(mNotes.count("WATCHDOG=1") >= 3);

    const QString item = "{\"url\":\"http://127.0.0.1:9/a.mp3\",\"cachekey\":\"a\"}";
    server.request("loadMedia", {item, QString()});
    QTRY_VERIFY(mNotes.contains("STATUS=state Loading, NoError"));

    const pid_t pid = pid_t(server.process().processId());
    if (!holdMainThread(pid))
        QSKIP("the test may not trace the server (ptrace refused), so cannot hold its main thread");
    readNotifications();   // kicks sent before the hold
    mNotes.clear();
    QElapsedTimer held;
    held.start();
    while (held.elapsed() < kHeldMs)
        QTest::qWait(50);   // the behaviour under test is that nothing arrives for this long
    readNotifications();
    QCOMPARE(mNotes.count("WATCHDOG=1"), 0);
    QCOMPARE(::ptrace(PTRACE_DETACH, pid, nullptr, nullptr), 0);
    QTRY_VERIFY(mNotes.count("WATCHDOG=1") >= 1);
    QVERIFY(server.terminate());
    readNotifications();
    QVERIFY(mNotes.contains("STOPPING=1"));
    mNotifier.reset();
    ::close(mSocket);
}

// systemd reads the unit without a complaint (the program path pointed at the build), and its
// exposure stays at 2.5 or below.
void TestServiceUnit::unitVerifiesAndIsHardened()
{
    QTemporaryDir dir;
    QString unit = readAll(sourceFile("data/systemd/cabin-media-server.service"));
    QVERIFY(unit.contains("ExecStart=/usr/bin/cabin-media-server "));
    unit.replace("/usr/bin/cabin-media-server", qEnvironmentVariable("CABIN_BIN_DIR") + "/cabin-media-server");
    const QString path = dir.filePath("cabin-media-server.service");
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(unit.toUtf8());
    file.close();
    const auto verified = runTool("systemd-analyze", {"verify", path});
    QCOMPARE(verified, qMakePair(0, QString()));
    const auto security = runTool("systemd-analyze", {"security", "--offline=yes", path});
    const QRegularExpressionMatch exposure = QRegularExpression("Overall exposure level for \\S+: ([0-9.]+)").match(security.second);
    QVERIFY2(exposure.hasMatch(), qPrintable(security.second));
    QVERIFY2(exposure.captured(1).toDouble() <= 2.5, qPrintable(exposure.captured(0)));
}

void TestServiceUnit::policyAdmitsOnlyTheClientsGroup_data()
{
    QTest::addColumn<QString>("groups");   // setpriv's choice of supplementary groups
    QTest::addColumn<QStringList>("call");
    QTest::addColumn<bool>("admitted");
    const QStringList service{"call", "com.kelvramotors.MediaServer2", "/MediaServer2", "com.kelvramotors.MediaServer2", "ServiceStatus"};
    const QStringList player{"get-property", "org.mpris.MediaPlayer2.CabinMediaServer2", "/org/mpris/MediaPlayer2",
                             "org.mpris.MediaPlayer2", "Identity"};
    QTest::newRow("outside the group: the service") << "--clear-groups" << service << false;
    QTest::newRow("outside the group: the media player") << "--clear-groups" << player << false;
    QTest::newRow("in the group: the service") << "--groups=audio" << service << true;
    QTest::newRow("in the group: the media player") << "--groups=audio" << player << true;
}

// The shipped policy with its user and group set to ones that exist here: the test's own user
// as the service's, "audio" as the clients'. Callers run as nobody.
void TestServiceUnit::policyAdmitsOnlyTheClientsGroup()
{
    QFETCH(QString, groups);
    QFETCH(QStringList, call);
    QFETCH(bool, admitted);
    if (::geteuid() != 0)
        QSKIP("calling as another user needs root");
    ServerProcess server;
    QString policy = readAll(sourceFile("data/dbus/com.kelvramotors.MediaServer2.conf"));
    QVERIFY(policy.contains("user=\"cabin-media\"") && policy.contains("group=\"cabin-media-clients\""));
    policy.replace("user=\"cabin-media\"", "user=\"root\"").replace("group=\"cabin-media-clients\"", "group=\"audio\"");
    const QString policyFile = server.writeFile("policy.conf", policy.toUtf8());
    server.setBusConfig(server.writeFile("bus.conf", PrivateBus::systemConfigWith(policyFile)));
    QVERIFY(server.start());
    const auto result = runTool("setpriv", QStringList{"--reuid=nobody", "--regid=nogroup", groups, "busctl",
                                                       "--address=" + server.busAddress()} + call);
    QVERIFY2((result.first == 0) == admitted, qPrintable(result.second));
    if (!admitted)
        QVERIFY2(result.second.contains("Access denied"), qPrintable(result.second));
    QVERIFY(server.terminate());
}

QTEST_GUILESS_MAIN(TestServiceUnit)
#include "tst_service_unit.moc"
