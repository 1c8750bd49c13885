// The real cabin-media-server binary: its command line, the whole configuration table, the
// settings file and command-line layers, refusals, start-up logging and the exits on signals.

#include "tests/support/ServerProcess.h"

#include <QRegularExpression>
#include <QtTest>

#include <csignal>
#include <fcntl.h>
#include <unistd.h>

namespace {

// The log lines with their time and thread stripped: "INFO run(): running".
QStringList logTexts(const ServerProcess& server)
{
    static const QRegularExpression prefix(QStringLiteral(R"(^\S+ (INFO|WARN|ERROR) \[[^\]]*\] )"));
    return server.logLines().replaceInStrings(prefix, QStringLiteral("\\1 "));
}

// The whole table in listing order: key, type and compiled-in default. Defaults under the cache
// root are written with the placeholder ROOT.
const char* const kTable[] = {
    "data_pub/MediaServer2BufferStatus_frequency\tint\t500",
    "data_pub/MediaServer2Info_frequency\tint\t1000",
    "data_pub/MediaServer2NetStats_frequency\tint\t10000",
    "data_pub/MediaServer2PlaybackStatus_frequency\tint\t0",
    "data_pub/MediaServer2Stats_low_frequency\tint\t1000",
    "data_pub/MediaServer2Stats_rate_limit_time\tint\t10",
    "data_pub/MediaServer2_low_frequency\tint\t250",
    "data_pub/MediaServer2_rate_limit_time\tint\t10",
    "gstreamer/audio_sink\tstring\t",
    "gstreamer/bus_poll_interval\tint\t250",
    "gstreamer/extended_log_level\tint\t0",
    "gstreamer/log_level\tint\t1",
    "gstreamer/override_url\tstring\t",
    "gstreamer/progress_poll_interval\tint\t500",
    "gstreamer/volume\treal\t1.0",
    "media_buffer/allow_fifo\tbool\tfalse",
    "media_buffer/download_retries\tint\t3",
    "media_buffer/download_timeout\tint\t10000",
    "media_buffer/header_debug\tbool\tfalse",
    "media_buffer/initial_threshold_bytes\tint\t160000",
    "media_buffer/resume_play_threshold_ms\tint\t10000",
    "media_buffer/underrun_threshold_ms\tint\t5000",
    "media_fifo/buffer_size\tint\t51200",
    "media_fifo/ring_buffer_size\tint\t1048576",
    "media_fifo/title_charset\tstring\tlatin1",
    "media_server/trace_player_sm\tbool\ttrue",
    "mediaserver/cache_hit_access_time_threshold_seconds\tint\t600",
    "mediaserver/cache_key\tstring\t",
    "mediaserver/maxDiskCacheCount\tunsigned int\t1000",
    "mediaserver/maxDiskCacheSize\tint\t2000",
    "mediaserver/preload_cache_key\tstring\t",
    "mediaserver/stream_cache_db_file\tstring\tROOT/stream_cache/stream_cache.db",
    "mediaserver/stream_cache_db_file\tstring\tROOT/stream_cache/streams/",
    "mediaserver/stream_cache_debug_free_disk_space_mb\tint\t-1",
    "mediaserver/stream_cache_debug_log\tbool\tfalse",
    "mediaserver/stream_cache_item_expiration\tunsigned int\t2592000",
    "mediaserver/stream_cache_max_async_load\tint\t3",
    "mediaserver/stream_cache_prune_timer_ms\tint\t60000",
    "mediaserver/stream_cache_required_free_disk_space_mb\tint\t300",
    "mpris/enabled\tbool\ttrue",
    "net/allow_insecure_tls\tbool\ttrue",
    "net/ca_file\tstring\t",
    "service/bus\tstring\tsession",
    "storage/alternate_media_cache_folder\tstring\tROOT/media_cache_alt",
    "storage/media_cache_folder\tstring\tROOT/media_cache",
    "storage/stream_cache_folder\tstring\tROOT/stream_cache",
};

} // namespace

class TestStartup : public QObject
{
    Q_OBJECT
private slots:
    // A header, then every key, sorted, with its type, default and current value, and nothing
    // else: the current column is the default unless the settings file or --set (which wins)
    // gives a value, printed as its type prints it ("yes" as "true"), and a key shared by two
    // objects sets both of its lines.
    void listsEveryKeyWithTypeDefaultAndValue()
    {
        ServerProcess server;
        server.writeFile(QStringLiteral("config/KelvraMotors/CabinMediaServer2.conf"), "[media_buffer]\ndownload_retries=5\nallow_fifo=yes\n");
        QVERIFY(server.run({"--list-config", "--set", "media_buffer/download_retries=9", "--set=mediaserver/stream_cache_db_file=/data/cache.db"}));
        QCOMPARE(server.process().exitCode(), 0);
        const QHash<QString, QString> set{{"media_buffer/download_retries", "9"}, {"media_buffer/allow_fifo", "true"},
                                          {"mediaserver/stream_cache_db_file", "/data/cache.db"}};
        QStringList expected{QStringLiteral("# key\ttype\tdefault\tcurrent")};
        for (const char* row : kTable) {
            const QString line = QString::fromLatin1(row).replace(QLatin1String("ROOT"), server.cacheRoot());
            const QString key = line.section(QLatin1Char('\t'), 0, 0);
            expected.append(line + QLatin1Char('\t') + set.value(key, line.section(QLatin1Char('\t'), 2)));
        }
        QCOMPARE(server.out().split(QLatin1Char('\n'), Qt::SkipEmptyParts), expected);
        QVERIFY2(!QDir(server.cacheRoot()).exists(), "listing the settings must not create folders");
    }

    // Informational options print and exit 0; a bad command line is refused with exit 2 and one line.
    void commandLineEndsAtOnce_data()
    {
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<int>("exitCode");
        QTest::addColumn<QString>("out");   // how standard output starts; empty: nothing at all
        QTest::addColumn<QString>("err");   // all of standard error
        QTest::newRow("--help") << QStringList{"--help"} << 0 << "Usage: cabin-media-server [OPTIONS]\n" << QString();
        QTest::newRow("--version") << QStringList{"--version"} << 0 << "cabin-media-server 0.1.0\n" << QString();
        const QString refused = QStringLiteral("cabin-media-server: %1");
        QTest::newRow("unknown key") << QStringList{"--set", "media_buffer/no_such=1"} << 2 << QString()
            << refused.arg("unknown configuration key \"media_buffer/no_such\" (--list-config shows every key)");
        QTest::newRow("bad value refused even with --list-config") << QStringList{"--list-config", "--set=gstreamer/volume=loud"}
            << 2 << QString() << refused.arg("configuration key \"gstreamer/volume\" expects real from 0.0 to 10.0, got \"loud\"");
        QTest::newRow("unknown option") << QStringList{"--play-now"} << 2 << QString()
                                        << refused.arg("unknown argument \"--play-now\" (see --help)");
        QTest::newRow("--set without value") << QStringList{"--set"} << 2 << QString() << refused.arg("--set needs a value");
        QTest::newRow("value out of range") << QStringList{"--set", "gstreamer/volume=10.5"} << 2 << QString()
            << refused.arg("configuration key \"gstreamer/volume\" expects real from 0.0 to 10.0, got \"10.5\"");
        QTest::newRow("--verbose alone") << QStringList{"--verbose"} << 2 << QString() << refused.arg("--verbose goes with --list-config");
        QTest::newRow("--config file missing") << QStringList{"--config", "/nonexistent/media.conf"} << 2 << QString()
            << refused.arg("settings file /nonexistent/media.conf does not exist");
        QTest::newRow("--config a folder") << QStringList{"--config=/"} << 2 << QString()
            << refused.arg("settings file / is not readable: not a file");
        // FILE stands for a file holding "[gstreamer]", "volume=2" and "volume 3".
        QTest::newRow("--config file malformed") << QStringList{"--list-config", "--config", "FILE"} << 2 << QString()
            << refused.arg("settings file FILE, line 3: neither [section], key=value nor a ; comment");
    }
    void commandLineEndsAtOnce()
    {
        QFETCH(QStringList, args);
        QFETCH(int, exitCode);
        QFETCH(QString, out);
        QFETCH(QString, err);
        ServerProcess server;
        const QString file = server.writeFile(QStringLiteral("given.conf"), "[gstreamer]\nvolume=2\nvolume 3\n");
        QVERIFY(server.run(args.replaceInStrings(QStringLiteral("FILE"), file)));
        QCOMPARE(server.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.process().exitCode(), exitCode);
        QCOMPARE(server.logLines().join(QLatin1Char('\n')), err.replace(QStringLiteral("FILE"), file));
        QVERIFY2(out.isEmpty() ? server.out().isEmpty() : server.out().startsWith(out), qPrintable(server.out()));
    }

    // --verbose says for every key what it governs; a range, where there is one, ends the line.
    void verboseListingDescribesEveryKey()
    {
        ServerProcess server;
        QVERIFY(server.run({"--list-config", "--verbose"}));
        QCOMPARE(server.process().exitCode(), 0);
        const QStringList lines = server.out().split(QLatin1Char('\n'), Qt::SkipEmptyParts);
        QCOMPARE(lines.size(), int(std::size(kTable)) + 1);   // the header
        for (const QString& line : lines.mid(1))
            QVERIFY2(line.count(QLatin1Char('\t')) == 4 && !line.section(QLatin1Char('\t'), 4).isEmpty(), qPrintable(line));
        QVERIFY2(lines.filter(QRegularExpression(QStringLiteral("^gstreamer/volume\t.*; from 0.0 to 10.0$"))).size() == 1,
                 qPrintable(server.out()));
    }

    void startsLogsAndExitsCleanlyOnSignal_data()
    {
        QTest::addColumn<int>("signalNumber");
        QTest::addColumn<QString>("name");
        QTest::newRow("SIGTERM") << int(SIGTERM) << "SIGTERM";
        QTest::newRow("SIGINT") << int(SIGINT) << "SIGINT";
    }
    void startsLogsAndExitsCleanlyOnSignal()
    {
        QFETCH(int, signalNumber);
        QFETCH(QString, name);
        ServerProcess server;
        const QString path = server.writeFile(QStringLiteral("custom.conf"), "[gstreamer]\nvolume=0.5\n");
        QVERIFY(server.start({}, {"--config", path}));
        // A closing terminal's SIGHUP is logged and the server serves on.
        QCOMPARE(::kill(pid_t(server.process().processId()), SIGHUP), 0);
        QTRY_VERIFY(server.logHas(QStringLiteral("received SIGHUP, ignored")));
        QCOMPARE(server.request(QStringLiteral("ServiceStatus")).type(), QDBusMessage::ReplyMessage);
        QCOMPARE(::kill(pid_t(server.process().processId()), signalNumber), 0);
        QVERIFY(server.waitForExit());
        QCOMPARE(server.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.process().exitCode(), 0);
        // The milestones of start-up and shutdown, in order: the player exists (its machine in
        // NoMedia, published) before the service is served, and playback is stopped at the end.
        const QRegularExpression milestone(QStringLiteral("^INFO (startUp|MediaServerMachineSM|logChange|start|run|readSignals|"
                                                          "shutDown|internalStop)\\(\\)"));
        const QStringList texts = logTexts(server).filter(milestone).replaceInStrings(
            QRegularExpression(QStringLiteral("pid [1-9][0-9]*,")), QStringLiteral("pid N,"));
        QCOMPARE(texts, (QStringList{"INFO startUp(): CabinMediaServer2 0.1.0 starting, pid N, settings file " + path,
                                     "INFO MediaServerMachineSM(): Transition to initial state NoMediaState because initializing",
                                     "INFO logChange(): MEDIA2_serverState changed: NoMedia, NoError",
                                     "INFO start(): serving 2 services and 2 publishers on the bus at " + server.busAddress(),
                                     "INFO run(): running",
                                     "INFO readSignals(): received " + name + ", shutting down",
                                     "INFO shutDown(): event loop ended, shutting down",
                                     "INFO internalStop(): already stopped",
                                     "INFO shutDown(): stopped"}));
    }

    // Whatever the launcher did with the standard streams, SIGTERM ends the process with 0 (a
    // bound of ten seconds, not a timing: a stuck exit never ends), and closed streams are
    // pointed at /dev/null before anything else can take their numbers.
    void exitsOnSigtermWhateverTheStandardStreams_data()
    {
        QTest::addColumn<bool>("closed");   // else stderr is a full pipe that nobody reads
        QTest::newRow("stderr a full pipe never read") << false;
        QTest::newRow("standard streams closed") << true;
    }
    void exitsOnSigtermWhateverTheStandardStreams()
    {
        QFETCH(bool, closed);
        int fds[2];
        QCOMPARE(::pipe2(fds, O_CLOEXEC | O_NONBLOCK), 0);
        const QByteArray filler(4096, 'f');
        while (::write(fds[1], filler.constData(), size_t(filler.size())) > 0) {
        }
        ::fcntl(fds[1], F_SETFL, 0);   // the server's writes must block, as on a real pipe
        const int fullPipe = fds[1];
        ServerProcess server;
        QVERIFY(server.startWithStreams([closed, fullPipe] {
            if (!closed) {
                ::dup2(fullPipe, STDERR_FILENO);
                return;
            }
            for (int fd = 0; fd <= 2; ++fd)
                ::close(fd);
        }));
        ::close(fds[1]);
        const qint64 pid = server.process().processId();
        for (int fd = 0; closed && fd <= 2; ++fd)
            QCOMPARE(QFile::symLinkTarget(QStringLiteral("/proc/%1/fd/%2").arg(pid).arg(fd)), QStringLiteral("/dev/null"));
        QCOMPARE(::kill(pid_t(pid), SIGTERM), 0);
        QVERIFY(server.waitForExit(10000));
        QCOMPARE(server.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(server.process().exitCode(), 0);
        ::close(fds[0]);
    }

    // Without its bus the server ends with status 1 and one line saying why, whether it cannot
    // start or loses the bus while it runs (so that its service manager starts it again).
    void endsWithStatusOneWithoutItsBus()
    {
        ServerProcess first;   // owns the name on its bus
        QVERIFY(first.start());
        // The shipped system-bus policy lets only the service's own user own the name; the test
        // runs as another user.
        const QString policy = qEnvironmentVariable("CABIN_SOURCE_DIR") + QStringLiteral("/data/dbus/com.kelvramotors.MediaServer2.conf");
        PrivateBus systemBus(first.writeFile(QStringLiteral("bus.conf"), PrivateBus::systemConfigWith(policy)));
        QVERIFY(systemBus.isRunning());
        const QString name = QStringLiteral("the bus name com.kelvramotors.MediaServer2");
        const QString address = first.busAddress();
        const QList<QPair<QString, QString>> cases{   // bus address, how the last log line starts
            {address, "ERROR start(): " + name + " is already owned on the bus at " + address + "; stop the process that owns it first"},
            {"unix:path=/nonexistent/bus", "ERROR start(): cannot reach the bus at unix:path=/nonexistent/bus: "},
            {systemBus.address(), "ERROR start(): not allowed to own " + name + " on the bus at " + systemBus.address()}};
        for (const auto& [bus, error] : cases) {
            ServerProcess server;
            QVERIFY(server.run({"--set", "service/bus=" + bus}));
            QCOMPARE(server.process().exitCode(), 1);
            QVERIFY2(!logTexts(server).filter(QRegularExpression("^" + QRegularExpression::escape(error))).isEmpty(),
                     qPrintable(server.logLines().join('\n')));
        }
        first.stopBus();
        QVERIFY(first.waitForExit());
        QCOMPARE(first.process().exitStatus(), QProcess::NormalExit);
        QCOMPARE(first.process().exitCode(), 1);
        QVERIFY(first.logHas("lost the connection to the bus at " + address));
    }

    // Under journald every log line carries its priority; a fatal signal leaves a backtrace.
    void journalPrefixesAndFatalSignalBacktrace()
    {
        ServerProcess server(QStringLiteral("8:12345"));
        QVERIFY(server.start());
        QCOMPARE(::kill(pid_t(server.process().processId()), SIGABRT), 0);
        QVERIFY(server.waitForExit());
        QCOMPARE(server.process().exitStatus(), QProcess::CrashExit);
        const QStringList lines = server.logLines();
        const qsizetype fatal = lines.indexOf(QStringLiteral("ERROR fatal signal ABRT, backtrace:"));
        QVERIFY2(fatal >= 3, qPrintable(lines.join('\n')));   // start-up, serving, running at least
        for (const QString& line : lines.mid(0, fatal))
            QVERIFY2(line.startsWith(QLatin1String("<6>INFO [")), qPrintable(line));
    }
};

QTEST_GUILESS_MAIN(TestStartup)
#include "tst_startup.moc"
