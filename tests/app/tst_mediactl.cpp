// cabin-mediactl against a real server on a private bus: answers, exit statuses, waiting and
// the status messages; what it and the other tools say about their command lines; and the
// status-message decoder on bodies the server would never send.

#include "media_server/MediaServer2DataPublisher.h"
#include "tests/support/PrivateBus.h"
#include "tests/support/ServerProcess.h"
#include "tools/mediactl/StatusLine.h"
#include "tools/mediactl/StatusMessageDecoder.h"

#include <QtDBus>
#include <QtTest>

namespace {

QString binary(const QString& name) { return qEnvironmentVariable("CABIN_BIN_DIR") + QLatin1Char('/') + name; }

// A service that takes every call and never answers, to see the client give up.
class SilentService : public QDBusVirtualObject
{
public:
    QString introspect(const QString&) const override { return QString(); }
    bool handleMessage(const QDBusMessage& m, const QDBusConnection&) override { m.setDelayedReply(true); ++calls; return true; }
    int calls = 0;
};

struct Run { int status = -1; QString out, err; };

// A body as the server writes it.
QByteArray body(quint32 messageId, const QVariantList& values)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream.setVersion(QDataStream::Qt_4_8);
    ServiceDataPublisher::writeHeader(stream, messageId, MediaServer2DataPublisher::kPublisherId, int(values.size()));
    for (const QVariant& value : values)
        stream << value;
    return bytes;
}

QByteArray infoBody() { return body(MediaServer2DataPublisher::kInfoId, {"t", QVariantList{6, 0}, 128, 9000ULL, false, true}); }

QJsonObject parsedLine(const QString& line)
{
    return QJsonDocument::fromJson(line.toUtf8()).object();
}

} // namespace

class TestMediaCtl : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QVERIFY(mServer.start({"gstreamer/audio_sink=fakesink sync=true"}));
    }

    void cleanupTestCase()
    {
        QVERIFY(mServer.terminate());
    }

    void answersAndStatuses_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("out");
        QTest::addColumn<QString>("err");
        // Nothing is loaded yet: a value with no value prints "-" (null in JSON), never 0, and
        // play is refused.
        QTest::newRow("status prints every message") << QStringList{"status"} << 0
            << "MediaServer2BufferStatus bufferProgress=0 downloadedBytes=-\n"
               "MediaServer2PlaybackStatus elapsedTime=-\n"
               "MediaServer2Info nowPlayingTitle=- serverState=NoMedia,NoError streamBitRate=- totalBytes=- streamCached=false "
               "playingCustomMedia=false\n"
               "MediaServer2NetStats connNetStats={\"categories\":{},\"linkState\":-1,\"received\":0,\"sent\":0}\n" << "";
        QTest::newRow("status as JSON") << QStringList{"status", "--json"} << 0
            << "\n{\"name\":\"MediaServer2Info\",\"values\":{\"MEDIA2_nowPlayingTitle\":null,\"MEDIA2_serverState\":[\"NoMedia\",\"NoError\"],"
               "\"MEDIA2_streamBitRate\":null,\"MEDIA2_totalBytes\":null,\"MEDIA2_streamCached\":false,\"MEDIA2_playingCustomMedia\":false}}\n"
            << "";
        QTest::newRow("false answer is status 1") << QStringList{"play", "5000"} << 1 << "false\n" << "";
        QTest::newRow("load builds the item and answers")
            << QStringList{"load", "http://127.0.0.1/a.mp3", "--cache-key", "a", "--start", "1000", "--on-deck", "http://127.0.0.1/b.mp3"}
            << 0 << "true\n" << "";
        QTest::newRow("play-file answers at once") << QStringList{"play-file", "/nonexistent.mp3"} << 0 << "true\n" << "";
        QTest::newRow("service status is JSON") << QStringList{"service-status"} << 0 << "{\"uptime\":" << "";
        QTest::newRow("valid value prints it") << QStringList{"get", "MEDIA2_bufferProgress"} << 0 << "0\n" << "";
        QTest::newRow("invalid value prints - and is status 1") << QStringList{"get", "LINK_linkState"} << 1 << "-\n" << "";
        QTest::newRow("values lists every value") << QStringList{"values"} << 0 << "GUI_canUseInternet\ttrue\n" << "";
        QTest::newRow("wait that never matches times out")
            << QStringList{"wait", "MEDIA2_serverState", "Playing", "--timeout", "0.2"} << 3 << ""
            << "cabin-mediactl: wait: MEDIA2_serverState did not match within 200 ms\n";
        QTest::newRow("watch stops after its count") << QStringList{"watch", "MediaServer2BufferStatus", "--count", "2"} << 0
                                                     << "MediaServer2BufferStatus bufferProgress=" << "";
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

    // What each tool says about its command line: --help on stdout with status 0; a refusal as
    // one line on stderr naming the tool (the last, after the engine's log, for an item that
    // did not play).
    void commandLine_data()
    {
        QTest::addColumn<QString>("program");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("status");
        QTest::addColumn<QString>("says");
        const auto row = [](const char* name, const char* program, const QStringList& args, int status, const QString& says) {
            QTest::newRow(name) << QString::fromLatin1(program) << args << status << says;
        };
        const QString server = mServer.busAddress();
        const QString notMedia = qEnvironmentVariable("CABIN_SOURCE_DIR") + QStringLiteral("/README.md");
        row("help names the subcommand", "cabin-mediactl", {"load", "--help"}, 0,
            "Usage: cabin-mediactl [--bus ADDRESS] load [options] URL");
        row("help lists the item keys the server reads", "cabin-mediactl", {"load", "--help"}, 0,
            "  startposition      number      --start\n");
        row("help lists the server states", "cabin-mediactl", {"wait", "--help"}, 0, "12 MediaFetchError");
        row("version", "cabin-mediactl", {"--version"}, 0, "cabin-mediactl 0.1.0\n");
        row("--bus without a value", "cabin-mediactl", {"--bus"}, 2, "--bus needs a value");
        row("unknown subcommand", "cabin-mediactl", {"rewind"}, 2, "unknown subcommand \"rewind\"");
        row("another subcommand's option", "cabin-mediactl", {"status", "--count", "2"}, 2,
            "status: Unknown option 'count' (see cabin-mediactl status --help)");
        row("missing argument", "cabin-mediactl", {"seek"}, 2, "seek: MS is missing");
        row("negative position", "cabin-mediactl", {"seek", "-5"}, 2, "seek: position -5 is negative");
        row("position beyond 32 bits", "cabin-mediactl", {"play", "99999999999"}, 2,
            "play: position 99999999999 is out of range (0 to 2147483647)");
        row("item option not a number", "cabin-mediactl", {"load", "http://h/a.mp3", "--start", "soon"}, 2,
            "load: --start \"soon\" is not a whole number");
        row("time-out beyond the timer", "cabin-mediactl", {"wait", "A", "b", "--timeout", "1e10"}, 2,
            "--timeout 1e10 is not a number of seconds from 0 to 2147483");
        row("unknown message", "cabin-mediactl", {"watch", "Nope"}, 2, "watch: unknown message \"Nope\"");
        row("no bus", "cabin-mediactl", {"--bus", "unix:path=/nonexistent", "pause"}, 2,
            "cannot reach the bus at unix:path=/nonexistent (");
        row("no server", "cabin-mediactl", {"--bus", mEmptyBus.address(), "watch"}, 2,
            "no cabin-media-server on the bus at " + mEmptyBus.address() + " (is it running? --bus selects another bus)");
        row("read-only value", "cabin-mediactl", {"--bus", server, "set", "MEDIA2_elapsedTime", "5"}, 2,
            "set: MEDIA2_elapsedTime is read-only: only its owner sets it");
        row("unknown value", "cabin-mediactl", {"--bus", server, "get", "NOPE"}, 2, "get: no data value named NOPE");
        row("play: help with units", "cabin-play", {"--help"}, 0, "Start position in milliseconds.");
        row("play: unknown option", "cabin-play", {"--bogus", "x"}, 2, "Unknown option 'bogus'");
        row("play: start not a number", "cabin-play", {"--start", "soon", notMedia}, 2, "--start \"soon\" is not a whole number");
        row("play: missing file", "cabin-play", {"/nonexistent.mp3"}, 2, "no such file: /nonexistent.mp3");
        row("play: sink GStreamer cannot make", "cabin-play", {"--sink", "nosuchsink", notMedia}, 2,
            "--sink \"nosuchsink\" is not a sink GStreamer can make");
        row("play: not media", "cabin-play", {"--sink", "fakesink", notMedia}, 1, notMedia + " did not play to its end");
        row("tone: help with units", "cabin-tone", {"--help"}, 0, "300 + 20 * k Hz");
        row("tone: format it cannot make", "cabin-tone", {"make", "2", "flac"}, 2,
            "cannot make \"flac\": the formats are mp3, ogg and wav");
        row("http: help with units", "cabin-test-http-server", {"--help"}, 0, "at most BYTES body bytes per second");
        row("http: unknown option", "cabin-test-http-server", {"--bogus"}, 2, "unknown option \"--bogus\"");
        row("http: modifier before a resource", "cabin-test-http-server", {"--rate", "5"}, 2, "--rate modifies a resource");
        row("http: rate not a number", "cabin-test-http-server", {"--generate", "/a=5", "--rate", "fast"}, 2,
            "--rate \"fast\" is not a whole number");
        row("http: unreadable file", "cabin-test-http-server", {"--serve", "/a=/nonexistent"}, 2, "--serve: cannot read /nonexistent");
    }

    void commandLine()
    {
        QFETCH(QString, program);
        QFETCH(QStringList, args);
        QFETCH(int, status);
        QFETCH(QString, says);
        const Run run = runTool(program, args);
        QCOMPARE(run.status, status);
        const QString said = status == 0 ? run.out : run.err.trimmed().section(QLatin1Char('\n'), -1);
        QVERIFY2(said.contains(says) && (status == 0 || said.startsWith(program + QStringLiteral(": "))), qPrintable(run.err + run.out));
        if (status == 2)
            QVERIFY2(run.err.count(QLatin1Char('\n')) == 1, qPrintable(run.err));
    }

    void waitSeesALaterChange()
    {
        QCOMPARE(ctl({"set", "GUI_canUseInternet", "true"}).status, 0);
        QProcess waiter;
        waiter.start(binary("cabin-mediactl"), {"--bus", mServer.busAddress(), "wait", "GUI_canUseInternet", "^false$", "--timeout", "20"});
        QVERIFY(waiter.waitForStarted());
        // The waiter may subscribe before or after this write; either way it must see "false".
        QCOMPARE(ctl({"set", "GUI_canUseInternet", "false"}).status, 0);
        QVERIFY(waiter.waitForFinished(20000));
        QCOMPARE(waiter.exitCode(), 0);
        QCOMPARE(QString::fromUtf8(waiter.readAllStandardOutput()), QStringLiteral("false\n"));
    }

    // Watching every message as JSON: each line is an object naming one of the four messages.
    // SIGTERM ends the watch with 0.
    void watchEndsWithZeroOnSigterm()
    {
        QProcess watcher;
        watcher.start(binary("cabin-mediactl"), {"--bus", mServer.busAddress(), "watch", "--json"});
        QTRY_VERIFY_WITH_TIMEOUT(watcher.canReadLine(), 20000);
        while (watcher.canReadLine()) {
            const QString line = QString::fromUtf8(watcher.readLine());
            QVERIFY2(StatusMessageDecoder::messageNames().contains(parsedLine(line).value(QStringLiteral("name")).toString()),
                     qPrintable(line));
        }
        watcher.terminate();
        QVERIFY(watcher.waitForFinished(10000));
        QCOMPARE(watcher.exitStatus(), QProcess::NormalExit);
        QCOMPARE(watcher.exitCode(), 0);
    }

    // A body that does not decode is refused with one line, whatever is wrong with it.
    void malformedBodyIsRefused_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QByteArray>("body");
        QTest::addColumn<QString>("error");
        QTest::newRow("well formed decodes") << "MediaServer2Info" << infoBody() << "";
        QTest::newRow("truncated") << "MediaServer2Info" << infoBody().chopped(3) << "malformed body: a value is cut short";
        QTest::newRow("empty") << "MediaServer2Info" << QByteArray() << "malformed body: bad header (0 bytes)";
        QTest::newRow("leading word not 0") << "MediaServer2Info" << QByteArray(infoBody()).replace(3, 1, "\x01")
                                            << "malformed body: bad header";
        QTest::newRow("bytes after the last variant") << "MediaServer2Info" << infoBody() + QByteArray(4, '\0')
                                                      << "malformed body: 4 bytes after the last of 8 variants";
        QTest::newRow("too few values for the message") << "MediaServer2Info"
            << body(MediaServer2DataPublisher::kInfoId, {"t", QVariantList{6, 0}}) << "MediaServer2Info has 2 values, expected 6";
        QTest::newRow("a list claiming more items than the body holds") << "MediaServer2PlaybackStatus"
            << body(MediaServer2DataPublisher::kPlaybackStatusId, {}).replace(7, 1, "\x03") + QByteArray::fromHex("00000009" "00" "7fffffff")
            << "malformed body: a value is cut short, claims more than the body holds";
        QTest::newRow("another message's body") << "MediaServer2PlaybackStatus"
            << body(MediaServer2DataPublisher::kBufferStatusId, {5}) << "is not a MediaServer2PlaybackStatus message";
    }

    void malformedBodyIsRefused()
    {
        QFETCH(QString, message);
        QFETCH(QByteArray, body);
        QFETCH(QString, error);
        QList<StatusMessageDecoder::Value> values;
        QString said;
        QCOMPARE(StatusMessageDecoder::decode(message, body, &values, &said), error.isEmpty());
        QVERIFY2(said.contains(error) && !said.contains(QLatin1Char('\n')), qPrintable(said));
        if (error.isEmpty())
            QCOMPARE(StatusLine::text(message, values),
                     "MediaServer2Info nowPlayingTitle=\"t\" serverState=Playing,NoError streamBitRate=128 totalBytes=9000 streamCached=false playingCustomMedia=true");
    }

    // A title prints as one quoted line: it can neither read as "no value" nor start a line.
    void titleCannotForgeALine_data()
    {
        QTest::addColumn<QVariant>("title");
        QTest::addColumn<QString>("text");
        QTest::newRow("the title - is quoted") << QVariant("-") << "nowPlayingTitle=\"-\" ";
        QTest::newRow("newline and quote are escaped") << QVariant("a\"\nMediaServer2Info") << "nowPlayingTitle=\"a\\\"\\nMediaServer2Info\" ";
    }

    void titleCannotForgeALine()
    {
        QFETCH(QVariant, title);
        QFETCH(QString, text);
        QList<StatusMessageDecoder::Value> values;
        for (const QString& name : StatusMessageDecoder::valueNames(QStringLiteral("MediaServer2Info")))
            values.append({name, name == QLatin1String("MEDIA2_nowPlayingTitle") ? title : QVariant(false)});
        const QString line = StatusLine::text(QStringLiteral("MediaServer2Info"), values);
        const QString json = StatusLine::json(QStringLiteral("MediaServer2Info"), values);
        QVERIFY2(line.contains(text) && !line.contains(QLatin1Char('\n')) && !json.contains(QLatin1Char('\n')), qPrintable(line));
        QCOMPARE(parsedLine(json).value(QStringLiteral("values")).toObject().value(QStringLiteral("MEDIA2_nowPlayingTitle")),
                 QJsonValue::fromVariant(title));
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
        QCOMPARE(QString::fromUtf8(client.readAllStandardError()),
                 QStringLiteral("cabin-mediactl: pause: no answer within 3000 ms (cabin-media-server is busy or stuck: see its log)\n"));
        // QtDBus times calls with coarse timers, which may fire up to 5 % early.
        QVERIFY2(elapsed.elapsed() >= 2800, qPrintable(QStringLiteral("the client gave up after %1 ms").arg(elapsed.elapsed())));
        QCOMPARE(silent.calls, 1);
        connection.unregisterObject(QStringLiteral("/MediaServer2"));
        QDBusConnection::disconnectFromBus(QStringLiteral("silent"));
    }

private:
    Run runTool(const QString& program, const QStringList& args)
    {
        QProcess process;
        process.start(binary(program), args);
        if (!process.waitForFinished(20000))
            return {};
        const int status = process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
        return {status, QString::fromUtf8(process.readAllStandardOutput()), QString::fromUtf8(process.readAllStandardError())};
    }

    Run ctl(const QStringList& args) { return runTool(QStringLiteral("cabin-mediactl"), QStringList{"--bus", mServer.busAddress()} + args); }

    ServerProcess mServer;
    PrivateBus mEmptyBus;   // a bus no server is on
};

QTEST_GUILESS_MAIN(TestMediaCtl)
#include "tst_mediactl.moc"
