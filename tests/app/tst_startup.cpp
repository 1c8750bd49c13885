// The real cabin-media-server binary: its command line, the whole configuration table, the
// settings file and command-line layers, refusals, start-up logging and the exits on signals.

#include "tests/support/PrivateBus.h"

#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <memory>

namespace {

QString serverPath()
{
    return qEnvironmentVariable("CABIN_BIN_DIR") + QStringLiteral("/cabin-media-server");
}

// Each test runs the server with folders of its own.
class ServerRun
{
public:
    explicit ServerRun(const QStringList& extraEnvironment = {})
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert(QStringLiteral("XDG_CONFIG_HOME"), configHome());
        env.insert(QStringLiteral("XDG_CACHE_HOME"), mDir.filePath(QStringLiteral("cache")));
        env.remove(QStringLiteral("CACHE_DIRECTORY"));
        env.remove(QStringLiteral("JOURNAL_STREAM"));
        for (const QString& item : extraEnvironment)
            env.insert(item.section(QLatin1Char('='), 0, 0), item.section(QLatin1Char('='), 1));
        process.setProcessEnvironment(env);
    }

    QString configHome() const { return mDir.filePath(QStringLiteral("config")); }
    QString cacheRoot() const { return mDir.filePath(QStringLiteral("cache/CabinMediaServer2")); }

    QString writeFile(const QString& name, const QByteArray& content) const
    {
        const QString path = mDir.filePath(name);
        QDir().mkpath(QFileInfo(path).path());
        QFile file(path);
        if (file.open(QIODevice::WriteOnly))
            file.write(content);
        return path;
    }

    bool runToEnd(const QStringList& args)
    {
        process.start(serverPath(), args);
        if (!process.waitForFinished(20000))
            return false;
        out = QString::fromUtf8(process.readAllStandardOutput());
        err = QString::fromUtf8(process.readAllStandardError());
        return true;
    }

    // Starts the server and waits until its log says the event loop runs.
    bool startRunning(const QStringList& args = {})
    {
        if (busAddress().isEmpty())
            return false;
        process.start(serverPath(), args + QStringList{"--set", "service/bus=" + busAddress()});
        if (!process.waitForStarted(10000))
            return false;
        QElapsedTimer timer;
        timer.start();
        while (!err.contains(QLatin1String("run(): running")) && timer.elapsed() < 20000) {
            process.waitForReadyRead(200);
            err += QString::fromUtf8(process.readAllStandardError());
        }
        return err.contains(QLatin1String("run(): running"));
    }

    bool finish()
    {
        const bool finished = process.waitForFinished(20000);
        err += QString::fromUtf8(process.readAllStandardError());
        return finished;
    }

    // The log lines with their time and thread stripped: "INFO run(): running".
    QStringList logTexts() const
    {
        static const QRegularExpression prefix(QStringLiteral(R"(^\S+ (INFO|WARN|ERROR) \[[^\]]*\] )"));
        QStringList texts;
        for (const QString& line : err.split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
            const QRegularExpressionMatch match = prefix.match(line);
            if (match.hasMatch())
                texts.append(match.captured(1) + QLatin1Char(' ') + line.mid(match.capturedLength()));
        }
        return texts;
    }

    QProcess process;
    QString out;
    QString err;

    // The run's own bus, started on first use.
    QString busAddress()
    {
        if (!mBus)
            mBus = std::make_unique<PrivateBus>();
        return mBus->address();
    }

private:
    QTemporaryDir mDir;
    std::unique_ptr<PrivateBus> mBus;
};

QStringList configLines(const QString& out)
{
    return out.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT
private slots:
    void helpAndVersion_data();
    void helpAndVersion();
    void listsEveryKeyWithTypeAndDefault_data();
    void listsEveryKeyWithTypeAndDefault();
    void listsNothingElse();
    void layersShowInTheCurrentColumn();
    void sharedKeySetsBothLines();
    void badCommandLineIsRefused_data();
    void badCommandLineIsRefused();
    void malformedSettingsFileLogsOnceAndKeepsDefaults();
    void startsLogsAndExitsCleanlyOnSignal_data();
    void startsLogsAndExitsCleanlyOnSignal();
    void cannotStartWithoutBusOrName();
    void busPolicyKeepsOtherUsersFromTheName();
    void journalGetsPriorityPrefixes();
    void fatalSignalLeavesABacktrace();
};

void TestStartup::helpAndVersion_data()
{
    QTest::addColumn<QString>("arg");
    QTest::addColumn<QString>("expected");
    QTest::newRow("--help") << "--help" << "Usage: cabin-media-server [OPTIONS]";
    QTest::newRow("--version") << "--version" << "cabin-media-server 0.1.0\n";
}

void TestStartup::helpAndVersion()
{
    QFETCH(QString, arg);
    QFETCH(QString, expected);
    ServerRun run;
    QVERIFY(run.runToEnd({arg}));
    QCOMPARE(run.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.process.exitCode(), 0);
    QVERIFY2(run.out.startsWith(expected), qPrintable(run.out));
    QVERIFY2(!run.err.contains(QLatin1String("starting")), "no start-up for an informational option");
}

// The whole table, each key with its type and compiled-in default. Defaults that depend on the
// cache root are written with the placeholder ROOT.
static const char* const kTable[][3] = {
    {"media_buffer/initial_threshold_bytes", "int", "160000"},
    {"media_buffer/download_retries", "int", "3"},
    {"media_buffer/header_debug", "bool", "false"},
    {"media_buffer/download_timeout", "int", "10000"},
    {"media_buffer/underrun_threshold_ms", "int", "5000"},
    {"media_buffer/resume_play_threshold_ms", "int", "10000"},
    {"media_buffer/allow_fifo", "bool", "false"},
    {"media_fifo/ring_buffer_size", "int", "1048576"},
    {"media_fifo/buffer_size", "int", "51200"},
    {"gstreamer/bus_poll_interval", "int", "250"},
    {"gstreamer/progress_poll_interval", "int", "500"},
    {"gstreamer/log_level", "int", "1"},
    {"gstreamer/extended_log_level", "int", "0"},
    {"gstreamer/volume", "real", "1.0"},
    {"gstreamer/override_url", "string", ""},
    {"media_server/trace_player_sm", "bool", "true"},
    {"mediaserver/maxDiskCacheSize", "int", "2000"},
    {"mediaserver/maxDiskCacheCount", "unsigned int", "1000"},
    {"mediaserver/cache_hit_access_time_threshold_seconds", "int", "600"},
    {"mediaserver/cache_key", "string", ""},
    {"mediaserver/preload_cache_key", "string", ""},
    {"mediaserver/stream_cache_max_async_load", "int", "3"},
    {"mediaserver/stream_cache_debug_log", "bool", "false"},
    {"mediaserver/stream_cache_db_file", "string", "ROOT/stream_cache/stream_cache.db"},
    {"mediaserver/stream_cache_db_file", "string", "ROOT/stream_cache/streams/"},
    {"mediaserver/stream_cache_item_expiration", "unsigned int", "2592000"},
    {"mediaserver/stream_cache_required_free_disk_space_mb", "int", "300"},
    {"mediaserver/stream_cache_debug_free_disk_space_mb", "int", "-1"},
    {"mediaserver/stream_cache_prune_timer_ms", "int", "60000"},
    {"data_pub/MediaServer2_low_frequency", "int", "250"},
    {"data_pub/MediaServer2_rate_limit_time", "int", "10"},
    {"data_pub/MediaServer2BufferStatus_frequency", "int", "500"},
    {"data_pub/MediaServer2PlaybackStatus_frequency", "int", "0"},
    {"data_pub/MediaServer2Info_frequency", "int", "1000"},
    {"data_pub/MediaServer2Stats_low_frequency", "int", "1000"},
    {"data_pub/MediaServer2Stats_rate_limit_time", "int", "10"},
    {"data_pub/MediaServer2NetStats_frequency", "int", "10000"},
    {"service/bus", "string", "session"},
    {"gstreamer/audio_sink", "string", ""},
    {"storage/media_cache_folder", "string", "ROOT/media_cache"},
    {"storage/alternate_media_cache_folder", "string", "ROOT/media_cache_alt"},
    {"storage/stream_cache_folder", "string", "ROOT/stream_cache"},
    {"net/allow_insecure_tls", "bool", "true"},
};

void TestStartup::listsEveryKeyWithTypeAndDefault_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("type");
    QTest::addColumn<QString>("defaultText");
    for (const auto& row : kTable)
        QTest::newRow(QByteArray(row[0]) + " " + row[2]) << row[0] << row[1] << row[2];
}

void TestStartup::listsEveryKeyWithTypeAndDefault()
{
    QFETCH(QString, key);
    QFETCH(QString, type);
    QFETCH(QString, defaultText);
    ServerRun run;
    QVERIFY(run.runToEnd({"--list-config"}));
    QCOMPARE(run.process.exitCode(), 0);
    const QString value = QString(defaultText).replace(QLatin1String("ROOT"), run.cacheRoot());
    const QString line = QStringList{key, type, value, value}.join(QLatin1Char('\t'));
    QVERIFY2(configLines(run.out).contains(line), qPrintable(line));
}

void TestStartup::listsNothingElse()
{
    ServerRun run;
    QVERIFY(run.runToEnd({"--list-config"}));
    const QStringList lines = configLines(run.out);
    QCOMPARE(lines.size(), int(sizeof(kTable) / sizeof(kTable[0])));
    QStringList keys;
    for (const QString& line : lines)
        keys.append(line.section(QLatin1Char('\t'), 0, 0));
    QStringList sorted = keys;
    std::stable_sort(sorted.begin(), sorted.end());
    QCOMPARE(keys, sorted);
    QVERIFY2(!QDir(run.cacheRoot()).exists(), "listing the settings must not create folders");
}

void TestStartup::layersShowInTheCurrentColumn()
{
    ServerRun run;
    run.writeFile(QStringLiteral("config/KelvraMotors/CabinMediaServer2.conf"),
                  "[media_buffer]\ndownload_retries=5\nallow_fifo=true\n");
    QVERIFY(run.runToEnd({"--list-config", "--set", "media_buffer/download_retries=9"}));
    QCOMPARE(run.process.exitCode(), 0);
    const QStringList lines = configLines(run.out);
    QVERIFY(lines.contains(QStringLiteral("media_buffer/download_retries\tint\t3\t9")));
    QVERIFY(lines.contains(QStringLiteral("media_buffer/allow_fifo\tbool\tfalse\ttrue")));
    QVERIFY(lines.contains(QStringLiteral("media_buffer/download_timeout\tint\t10000\t10000")));
}

void TestStartup::sharedKeySetsBothLines()
{
    ServerRun run;
    QVERIFY(run.runToEnd({"--list-config", "--set=mediaserver/stream_cache_db_file=/data/cache.db"}));
    QStringList current;
    for (const QString& line : configLines(run.out))
        if (line.startsWith(QLatin1String("mediaserver/stream_cache_db_file\t")))
            current.append(line.section(QLatin1Char('\t'), 3));
    QCOMPARE(current, (QStringList{"/data/cache.db", "/data/cache.db"}));
}

void TestStartup::badCommandLineIsRefused_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<QString>("message");
    QTest::newRow("unknown key") << QStringList{"--set", "media_buffer/no_such=1"}
                                 << "unknown configuration key \"media_buffer/no_such\" (--list-config shows every key)";
    QTest::newRow("int key given words") << QStringList{"--set", "media_buffer/download_retries=three"}
                                         << "configuration key \"media_buffer/download_retries\" expects int, got \"three\"";
    QTest::newRow("unsigned key given negative") << QStringList{"--set=mediaserver/maxDiskCacheCount=-1"}
                                                 << "configuration key \"mediaserver/maxDiskCacheCount\" expects unsigned int, got \"-1\"";
    QTest::newRow("bad value refused even with --list-config") << QStringList{"--list-config", "--set", "gstreamer/volume=loud"}
                                                               << "configuration key \"gstreamer/volume\" expects real, got \"loud\"";
    QTest::newRow("unknown option") << QStringList{"--play-now"} << "unknown argument \"--play-now\" (see --help)";
    QTest::newRow("--set without value") << QStringList{"--set"} << "--set needs a value";
}

void TestStartup::badCommandLineIsRefused()
{
    QFETCH(QStringList, args);
    QFETCH(QString, message);
    ServerRun run;
    QVERIFY(run.runToEnd(args));
    QCOMPARE(run.process.exitCode(), 2);
    QCOMPARE(run.err, QStringLiteral("cabin-media-server: ") + message + QLatin1Char('\n'));
    QCOMPARE(run.out, QString());
}

void TestStartup::malformedSettingsFileLogsOnceAndKeepsDefaults()
{
    ServerRun run;
    const QString path = run.writeFile(QStringLiteral("broken.conf"), "[media_buffer\ndownload_retries=8\n");
    QVERIFY(run.runToEnd({"--list-config", "--config", path}));
    QCOMPARE(run.process.exitCode(), 0);
    QVERIFY(configLines(run.out).contains(QStringLiteral("media_buffer/download_retries\tint\t3\t3")));
    QCOMPARE(run.logTexts(), QStringList{"WARN loadSettingsFile(): settings file " + path + " is malformed; using the defaults"});
}

void TestStartup::startsLogsAndExitsCleanlyOnSignal_data()
{
    QTest::addColumn<int>("signalNumber");
    QTest::addColumn<QString>("name");
    QTest::newRow("SIGTERM") << int(SIGTERM) << "SIGTERM";
    QTest::newRow("SIGINT") << int(SIGINT) << "SIGINT";
}

void TestStartup::startsLogsAndExitsCleanlyOnSignal()
{
    QFETCH(int, signalNumber);
    QFETCH(QString, name);
    ServerRun run;
    run.writeFile(QStringLiteral("custom.conf"), "[gstreamer]\nvolume=0.5\n");
    QVERIFY2(run.startRunning({"--config", run.configHome() + QStringLiteral("/../custom.conf")}), qPrintable(run.err));
    QCOMPARE(::kill(pid_t(run.process.processId()), signalNumber), 0);
    QVERIFY(run.finish());
    QCOMPARE(run.process.exitStatus(), QProcess::NormalExit);
    QCOMPARE(run.process.exitCode(), 0);
    const QStringList texts = run.logTexts();
    QCOMPARE(texts.size(), 6);
    QVERIFY2(texts.at(0).startsWith(QLatin1String("INFO startUp(): CabinMediaServer2 0.1.0 starting, pid ")), qPrintable(texts.at(0)));
    QVERIFY2(texts.at(0).endsWith(QLatin1String("custom.conf")), qPrintable(texts.at(0)));
    QCOMPARE(texts.mid(1), (QStringList{"INFO start(): serving 1 services on the bus at " + run.busAddress(),
                                        "INFO run(): running",
                                        "INFO readSignals(): received " + name + ", shutting down",
                                        "INFO shutDown(): event loop ended, shutting down",
                                        "INFO shutDown(): stopped"}));
}

void TestStartup::cannotStartWithoutBusOrName()
{
    ServerRun first;
    QVERIFY(first.startRunning());
    ServerRun second;
    QVERIFY(second.runToEnd({"--set", "service/bus=" + first.busAddress()}));
    QCOMPARE(second.process.exitCode(), 1);
    QCOMPARE(second.logTexts().last(), "ERROR start(): the bus name com.kelvramotors.MediaServer2 is already owned on the bus at "
                                           + first.busAddress() + "; stop the process that owns it first");
    ServerRun noBus;
    QVERIFY(noBus.runToEnd({"--set", "service/bus=unix:path=/nonexistent/bus"}));
    QCOMPARE(noBus.process.exitCode(), 1);
    QVERIFY2(noBus.logTexts().last().startsWith("ERROR start(): cannot reach the bus at unix:path=/nonexistent/bus: "),
             qPrintable(noBus.err));
    first.process.terminate();
    QVERIFY(first.finish());
}

// The shipped system-bus policy lets only the service's own user own the name; the test runs as
// another user.
void TestStartup::busPolicyKeepsOtherUsersFromTheName()
{
    ServerRun run;
    const QString policy = qEnvironmentVariable("CABIN_SOURCE_DIR") + QStringLiteral("/data/dbus/com.kelvramotors.MediaServer2.conf");
    const QString config = run.writeFile(QStringLiteral("bus.conf"), QStringLiteral(
        "<!DOCTYPE busconfig PUBLIC \"-//freedesktop//DTD D-BUS Bus Configuration 1.0//EN\"\n"
        " \"http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd\">\n"
        "<busconfig><type>system</type><listen>unix:tmpdir=/tmp</listen><auth>EXTERNAL</auth>\n"
        "<policy context=\"default\"><allow user=\"*\"/><allow own=\"*\"/><allow send_destination=\"*\"/>"
        "<allow receive_sender=\"*\"/></policy>\n<include>%1</include></busconfig>\n").arg(policy).toUtf8());
    PrivateBus bus(config);
    QVERIFY(bus.isRunning());
    QVERIFY(run.runToEnd({"--set", "service/bus=" + bus.address()}));
    QCOMPARE(run.process.exitCode(), 1);
    QVERIFY2(run.logTexts().last().startsWith("ERROR start(): not allowed to own the bus name com.kelvramotors.MediaServer2 on the bus at "),
             qPrintable(run.err));
}

void TestStartup::journalGetsPriorityPrefixes()
{
    ServerRun run({"JOURNAL_STREAM=8:12345"});
    QVERIFY(run.startRunning());
    run.process.terminate();
    QVERIFY(run.finish());
    QCOMPARE(run.process.exitCode(), 0);
    const QStringList lines = run.err.split(QLatin1Char('\n'), Qt::SkipEmptyParts);
    QVERIFY(!lines.isEmpty());
    for (const QString& line : lines)
        QVERIFY2(line.startsWith(QLatin1String("<6>INFO [main] ")), qPrintable(line));
}

void TestStartup::fatalSignalLeavesABacktrace()
{
    ServerRun run;
    QVERIFY(run.startRunning());
    QCOMPARE(::kill(pid_t(run.process.processId()), SIGABRT), 0);
    QVERIFY(run.finish());
    QCOMPARE(run.process.exitStatus(), QProcess::CrashExit);
    QVERIFY2(run.err.contains(QLatin1String("ERROR fatal signal ABRT, backtrace:\n")), qPrintable(run.err));
}

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
