#include "mpris/MprisProperties.h"
#include "tests/support/ServerProcess.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestHttpServer.h"

#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusVariant>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QtTest>

// The server as a desktop media player, driven the way a desktop drives it: by playerctl and
// busctl on the server's private bus, every effect checked against the values the server
// publishes.
namespace {

const QString kName = QStringLiteral("org.mpris.MediaPlayer2.CabinMediaServer2");
const QString kPath = QStringLiteral("/org/mpris/MediaPlayer2");
const QString kPlayer = QStringLiteral("org.mpris.MediaPlayer2.Player");
const int kSeconds = 20;
// playerctl answers within a second; this allows the sanitizers on a busy machine.
const int kToolMs = 30000;

} // namespace

class TestMpris : public QObject
{
    Q_OBJECT
public slots:
    void recordSignal(const QDBusMessage& signal) { mSignals.append(signal); }

private slots:
    void initTestCase();
    void statusFollowsWhatTheListenerHears_data();
    void statusFollowsWhatTheListenerHears();
    void playerctlDrivesThePlayer_data();
    void playerctlDrivesThePlayer();
    void pauseWhileBufferingHolds();
    void liveItemShowsItsTitleAndCannotSeek();
    void refusesWhatItCannotOpen();
    void introspectionShowsBothInterfaces();
    void offWhenDisabled();

private:
    // Runs a tool on the server's bus without blocking the loopback media server; its trimmed
    // output, or "exit N: <stderr>" when it failed.
    QString run(const QString& program, const QStringList& args);
    QString playerctl(const QStringList& args) { return run("playerctl", QStringList{"-p", "CabinMediaServer2"} + args); }
    QVariant property(const QString& name);
    bool sawChange(const QString& property, const QVariant& value) const;

    TestHttpServer mMedia;
    ServerProcess mServer;
    QList<QDBusMessage> mSignals;
};

void TestMpris::initTestCase()
{
    QString error;
    const QString tone = SteppedTone::file(SteppedTone::Format::Mp3, kSeconds, &error);
    QVERIFY2(!tone.isEmpty(), qPrintable(error));
    TestHttpResource item;
    item.body = fileContents(tone);
    mMedia.setResource("/tone.mp3", item);
    item.bytesPerSecond = 6000;   // under the tone's 16000 B/s: playing soon runs dry
    mMedia.setResource("/slow.mp3", item);
    item.bytesPerSecond = 0;
    TestHttpResource radio;
    radio.icy = true;
    radio.body = item.body;
    radio.icyMetaInt = 16000;
    radio.icyTitles = QStringList{"First Song", "Second Song"};
    mMedia.setResource("/radio", radio);
    QVERIFY(mMedia.start());
    QVERIFY(mServer.start({"gstreamer/audio_sink=fakesink sync=true"}));
    QDBusConnection bus = mServer.connection();
    QVERIFY(bus.connect(kName, kPath, "org.freedesktop.DBus.Properties", "PropertiesChanged", this, SLOT(recordSignal(QDBusMessage))));
    QVERIFY(bus.connect(kName, kPath, kPlayer, "Seeked", this, SLOT(recordSignal(QDBusMessage))));
}

QString TestMpris::run(const QString& program, const QStringList& args)
{
    QProcess tool;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert("DBUS_SESSION_BUS_ADDRESS", mServer.busAddress());
    tool.setProcessEnvironment(env);
    QSignalSpy finished(&tool, &QProcess::finished);
    tool.start(program, args);
    if (!finished.wait(kToolMs))
        return "no answer from " + program;
    const QString out = QString::fromUtf8(tool.readAllStandardOutput()).trimmed();
    if (tool.exitCode() != 0)
        return QStringLiteral("exit %1: %2").arg(tool.exitCode()).arg(QString::fromUtf8(tool.readAllStandardError()).trimmed());
    return out;
}

QVariant TestMpris::property(const QString& name)
{
    QDBusMessage get = QDBusMessage::createMethodCall(kName, kPath, "org.freedesktop.DBus.Properties", "Get");
    get << kPlayer << name;
    return mServer.connection().call(get).arguments().value(0).value<QDBusVariant>().variant();
}

bool TestMpris::sawChange(const QString& property, const QVariant& value) const
{
    for (const QDBusMessage& signal : mSignals) {
        if (signal.member() != QLatin1String("PropertiesChanged"))
            continue;
        const QVariantMap changed = qdbus_cast<QVariantMap>(signal.arguments().value(1));
        if (changed.contains(property) && changed.value(property) == value)
            return true;
    }
    return false;
}

// A moment of buffering or a seek does not flash "Stopped" on a desktop's controls.
void TestMpris::statusFollowsWhatTheListenerHears_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("before");
    QTest::addColumn<QString>("status");
    QTest::newRow("buffering while playing") << int(MediaV2::Buffering) << "Playing" << "Playing";
    QTest::newRow("on the way to playing") << int(MediaV2::TryingToPlay) << "Stopped" << "Playing";
    QTest::newRow("pausing") << int(MediaV2::TryingToPause) << "Playing" << "Paused";
    QTest::newRow("seeking while paused") << int(MediaV2::Seeking) << "Paused" << "Paused";
    QTest::newRow("loading") << int(MediaV2::Loading) << "Playing" << "Stopped";
}

void TestMpris::statusFollowsWhatTheListenerHears()
{
    QFETCH(int, state);
    QFETCH(QString, before);
    QFETCH(QString, status);
    QCOMPARE(MprisProperties::playbackStatus(MediaV2::MediaServerState(state), before), status);
}

void TestMpris::playerctlDrivesThePlayer_data()
{
    QTest::addColumn<QStringList>("command");
    QTest::addColumn<QString>("published");   // the state the server publishes afterwards
    QTest::addColumn<QString>("status");      // what playerctl then reports
    // Rows run in order on one server: each starts where the previous one left it.
    QTest::newRow("nothing loaded yet") << QStringList{"status"} << "NoMedia" << "Stopped";
    QTest::newRow("open loads and plays") << QStringList{"open", "/tone.mp3"} << "Playing" << "Playing";
    QTest::newRow("pause") << QStringList{"pause"} << "Paused" << "Paused";
    QTest::newRow("position while paused") << QStringList{"position", "5"} << "Paused" << "Paused";
    QTest::newRow("play resumes") << QStringList{"play"} << "Playing" << "Playing";
    QTest::newRow("volume") << QStringList{"volume", "0.5"} << "Playing" << "Playing";
    QTest::newRow("play-pause pauses") << QStringList{"play-pause"} << "Paused" << "Paused";
    QTest::newRow("stop") << QStringList{"stop"} << "NoMedia" << "Stopped";
}

void TestMpris::playerctlDrivesThePlayer()
{
    QFETCH(QStringList, command);
    QFETCH(QString, published);
    QFETCH(QString, status);
    if (command.value(0) == QLatin1String("open"))
        command[1] = mMedia.url(command[1]).toString();
    const int from = mServer.logLineCount();
    const QString out = playerctl(command);
    QVERIFY2(!out.startsWith(QLatin1String("exit")) && !out.startsWith(QLatin1String("no answer")), qPrintable(out));
    QTRY_VERIFY_WITH_TIMEOUT(mServer.publishedPair().startsWith(published + ','), kToolMs);
    QCOMPARE(playerctl({"status"}), status);
    QTRY_VERIFY2(sawChange("PlaybackStatus", status) || status == QLatin1String("Stopped"), qPrintable(status));
    if (command.value(0) == QLatin1String("open")) {
        QCOMPARE(playerctl({"metadata", "xesam:url"}), command[1]);
        // Known once the engine has measured the stream.
        QTRY_VERIFY_WITH_TIMEOUT(qAbs(playerctl({"metadata", "mpris:length"}).toLongLong() - kSeconds * 1000000LL) < 500000, kToolMs);
        QCOMPARE(property("CanSeek"), QVariant(true));
    }
    if (command.value(0) == QLatin1String("volume")) {
        QCOMPARE(property("Volume"), QVariant(0.5));
        QTRY_VERIFY(sawChange("Volume", 0.5));
    }
    if (command.value(0) == QLatin1String("position")) {
        QTRY_VERIFY_WITH_TIMEOUT(mServer.value("MEDIA2_elapsedTime").value(1).toInt() >= 5000, kToolMs);
        QVERIFY(mServer.logHas("seek(): position 5000", from));
        const auto seeked = std::find_if(mSignals.cbegin(), mSignals.cend(), [](const QDBusMessage& s) { return s.member() == QLatin1String("Seeked"); });
        QVERIFY(seeked != mSignals.cend());
        QVERIFY(seeked->arguments().value(0).toLongLong() >= 5000000);
        QVERIFY(playerctl({"position"}).toDouble() >= 5.0);
    }
}

// The server resumes by itself once it has buffered; a pause pressed meanwhile must not be
// undone by that.
void TestMpris::pauseWhileBufferingHolds()
{
    const QString out = playerctl({"open", mMedia.url("/slow.mp3").toString()});
    QVERIFY2(out.isEmpty(), qPrintable(out));
    QTRY_VERIFY_WITH_TIMEOUT(mServer.publishedPair().startsWith(QLatin1String("Buffering,")), kToolMs);
    QCOMPARE(playerctl({"pause"}), QString());
    QTRY_VERIFY_WITH_TIMEOUT(mServer.publishedPair().startsWith(QLatin1String("Paused,")), kToolMs);
    QCOMPARE(playerctl({"status"}), QStringLiteral("Paused"));
    QCOMPARE(mServer.request("stop").arguments().value(0), QVariant(true));
    QTRY_VERIFY_WITH_TIMEOUT(mServer.publishedPair().startsWith(QLatin1String("NoMedia,")), kToolMs);
}

void TestMpris::liveItemShowsItsTitleAndCannotSeek()
{
    const QString url = mMedia.url("/radio").toString();
    const QString item = QString::fromUtf8(QJsonDocument(QJsonObject{{"url", url}, {"live-stream", true}}).toJson(QJsonDocument::Compact));
    QCOMPARE(mServer.request("loadMedia", {item, QString()}).arguments().value(0), QVariant(true));
    QCOMPARE(mServer.request("play", {0}).arguments().value(0), QVariant(true));
    QTRY_VERIFY_WITH_TIMEOUT(mServer.value("MEDIA2_nowPlayingTitle").value(1).toString().endsWith(QLatin1String("Song")), kToolMs);
    const QString shown = playerctl({"metadata", "title"});
    QVERIFY2(shown.endsWith(QLatin1String("Song")), qPrintable(shown));   // the title may have moved on
    QCOMPARE(property("CanSeek"), QVariant(false));
    QCOMPARE(property("CanPause"), QVariant(true));
    const int from = mServer.logLineCount();
    QVERIFY(playerctl({"position", "5"}).startsWith(QLatin1String("exit")));   // no player can seek it
    QVERIFY(!mServer.logHas("seek(): position 5000", from));
    QCOMPARE(mServer.request("stop").arguments().value(0), QVariant(true));
}

void TestMpris::refusesWhatItCannotOpen()
{
    QDBusMessage open = QDBusMessage::createMethodCall(kName, kPath, kPlayer, "OpenUri");
    open << QStringLiteral("ftp://example.invalid/a.mp3");
    const QDBusMessage reply = mServer.connection().call(open);
    QCOMPARE(reply.errorName(), QStringLiteral("org.freedesktop.DBus.Error.NotSupported"));
    QVERIFY2(reply.errorMessage().contains("only http and https"), qPrintable(reply.errorMessage()));
}

void TestMpris::introspectionShowsBothInterfaces()
{
    const QString out = run("busctl", {"--address=" + mServer.busAddress(), "introspect", kName, kPath});
    for (const char* member : {"org.mpris.MediaPlayer2 ", "org.mpris.MediaPlayer2.Player ", ".OpenUri ", ".SetPosition ", ".Seeked ", ".Identity "})
        QVERIFY2(out.contains(QLatin1String(member)), qPrintable(QLatin1String(member) + "\n" + out));
}

void TestMpris::offWhenDisabled()
{
    ServerProcess server;
    QVERIFY(server.start({"mpris/enabled=false"}));
    QDBusConnection bus = server.connection();
    QVERIFY(bus.interface()->isServiceRegistered(QStringLiteral("com.kelvramotors.MediaServer2")).value());
    QVERIFY(!bus.interface()->isServiceRegistered(kName).value());
    QVERIFY(server.logHas("media-player bridge off (mpris/enabled is false)"));
    QVERIFY(server.terminate());
}

QTEST_GUILESS_MAIN(TestMpris)
#include "tst_mpris.moc"
