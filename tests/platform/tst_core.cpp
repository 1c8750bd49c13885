// The process services: the log line and its writer, assertions, Qt's messages, thread names,
// finalisers, singletons, named threads, timers and trace tags.

#include "platform/core/Finalizer.h"
#include "platform/core/SimpleTThread.h"
#include "platform/core/SingletonCleanup.h"
#include "platform/core/TagTracer.h"
#include "platform/core/TimerUtils.h"
#include "platform/log/LogLine.h"
#include "platform/log/LogWriter.h"
#include "tests/support/LogCapture.h"
#include "utils/Singleton.h"

#include <QCryptographicHash>
#include <QRegularExpression>
#include <QTemporaryFile>
#include <QTimer>
#include <QtTest>

#include <functional>
#include <pthread.h>
#include <thread>
#include <unistd.h>

namespace {

QStringList sDestroyed;   // main thread only

struct FirstSingleton { ~FirstSingleton() { sDestroyed.append(QStringLiteral("first")); } };
struct SecondSingleton { ~SecondSingleton() { sDestroyed.append(QStringLiteral("second")); } };

// What the logger writes to stderr while `logSomething` runs.
QString stderrOf(const std::function<void()>& logSomething)
{
    QTemporaryFile file;
    if (!file.open())
        return QStringLiteral("cannot open a temporary file");
    const int saved = ::dup(STDERR_FILENO);
    ::dup2(file.handle(), STDERR_FILENO);
    logSomething();
    Logger::flush();
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    file.seek(0);
    return QString::fromUtf8(file.readAll());
}

void logFromHere()
{
    LOG_WARN << "pieces " << 42 << ' ' << 2.5 << ' ' << true << ' ' << QByteArray("bytes") << ' ' << qint64(-9000000000LL);
}

} // namespace

class TestCore : public QObject
{
    Q_OBJECT
private slots:
    void lineHasTimeLevelThreadFunctionAndPieces()
    {
        const QString written = stderrOf(logFromHere);
        static const QRegularExpression line(QStringLiteral("^\\d{4}-\\d\\d-\\d\\dT\\d\\d:\\d\\d:\\d\\d\\.\\d{3}Z WARN \\[main\\] "
                                                            "logFromHere\\(\\): pieces 42 2\\.5 true bytes -9000000000\n$"));
        QVERIFY2(line.match(written).hasMatch(), qPrintable(written));
    }

    // Text from outside (a stream title, a D-Bus argument) can never forge a line of its own.
    void controlCharactersAreEscaped_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("logged");
        QTest::newRow("newline with a forged prefix") << "title\n<3>ERROR [main] forged" << "title\\n<3>ERROR [main] forged";
        QTest::newRow("carriage return and tab") << "a\rb\tc" << "a\\rb\\tc";
        QTest::newRow("other controls as hex") << "\x1b[31mred\x7f" << "\\x1b[31mred\\x7f";
        QTest::newRow("line separator") << QString(QChar(0x2028)) << "\\u2028";
        QTest::newRow("trailing newline ends the line") << "done\n" << "done";
    }
    void controlCharactersAreEscaped()
    {
        QFETCH(QString, message);
        QFETCH(QString, logged);
        const QString written = stderrOf([&message] { LOG_INFO << message; });
        QVERIFY2(written.endsWith(QStringLiteral("] operator()(): ") + logged + QLatin1Char('\n')), qPrintable(written));
        QCOMPARE(written.count(QLatin1Char('\n')), 1);
    }

    // A failed assertion is logged and the program continues; a holding one logs nothing.
    void assertionLogsItsTextsAndContinues()
    {
        LogCapture log;
        const int answer = 41;
        LOG_ASSERT(answer == 42, QStringLiteral("wrong answer"));
        const int line = __LINE__ - 1;
        LOG_ASSERT(answer == 41, QStringLiteral("never logged"));
        QCOMPARE(log.asserts().size(), 1);
        QCOMPARE(log.asserts().first().level, LogRecord::Error);
        QCOMPARE(log.asserts().first().text(),
                 QStringLiteral("ASSERT failed: (answer == 42) wrong answer [../../../tests/platform/tst_core.cpp:%1]").arg(line));
    }

    void qtMessagesReachTheLog_data()
    {
        QTest::addColumn<int>("type");
        QTest::addColumn<int>("level");
        QTest::newRow("debug is info") << int(QtDebugMsg) << int(LogRecord::Info);
        QTest::newRow("warning is warn") << int(QtWarningMsg) << int(LogRecord::Warn);
        QTest::newRow("critical is error") << int(QtCriticalMsg) << int(LogRecord::Error);
    }
    void qtMessagesReachTheLog()
    {
        QFETCH(int, type);
        QFETCH(int, level);
        LogCapture log;
        QMessageLogContext context("file.cpp", 3, "void MediaV2::Thing::act(int) const", "default");
        Logger::handleQtLogMessage(QtMsgType(type), context, QStringLiteral("from Qt"));
        QCOMPARE(log.lines(), QStringList{"MediaV2::Thing::act(): from Qt"});
        QCOMPARE(int(log.records().first().level), level);
    }

    void namedThreadShowsItsName()
    {
        LogCapture log;
        SimpleTThread thread(QStringLiteral("StreamCacheThread"));
        QObject worker;
        worker.moveToThread(&thread);
        thread.start();
        QThread* mainThread = QThread::currentThread();
        QMetaObject::invokeMethod(&worker, [&worker, mainThread] {
            LOG_INFO << "on the worker";
            worker.moveToThread(mainThread);
        }, Qt::BlockingQueuedConnection);
        std::thread plain([] {
            pthread_setname_np(pthread_self(), "gst-streaming");
            LOG_INFO << "on a plain thread";
        });
        plain.join();
        thread.stop();
        QCOMPARE(log.records().size(), 2);
        QCOMPARE(log.records().at(0).threadName, QStringLiteral("StreamCacheThread"));
        QCOMPARE(log.records().at(1).threadName, QStringLiteral("gst-streaming"));
    }

    // Shutdown must never lose work asked for before it: every call queued before stop() runs.
    void stopRunsTheWorkAlreadyQueued()
    {
        SimpleTThread thread(QStringLiteral("Queue"));
        QObject worker;
        worker.moveToThread(&thread);
        thread.start();
        int ran = 0;   // written on the thread only, read after it ended
        const int queued = 20000;
        // Each call takes longer than queueing one, as a write to disk does, so the thread is
        // far behind when stop() comes.
        const QByteArray block(16 * 1024, 'b');
        const auto work = [&ran, &block] { ran += !QCryptographicHash::hash(block, QCryptographicHash::Sha256).isEmpty(); };
        for (int i = 0; i < queued; ++i)
            QMetaObject::invokeMethod(&worker, work, Qt::QueuedConnection);
        thread.stop();
        QCOMPARE(ran, queued);
    }

    void stalledReaderNeverBlocksTheLogger()
    {
        int fds[2];
        QCOMPARE(::pipe(fds), 0);
        QByteArray drained;
        {
            LogWriter writer(fds[1]);
            // Far more than the pipe and the writer's queue hold: a blocking writer never finishes.
            const std::string line(1000, 'x');
            for (int i = 0; i < 5000; ++i)
                writer.enqueue(line + "\n");
            std::thread reader([&] {
                char buffer[65536];
                ssize_t n;
                while ((n = ::read(fds[0], buffer, sizeof(buffer))) > 0)
                    drained.append(buffer, int(n));
            });
            writer.enqueue("last line\n");
            QVERIFY(writer.flush(std::chrono::seconds(20)));   // the reader drains: no deadline is near
            ::close(fds[1]);
            reader.join();
        }
        ::close(fds[0]);
        static const QRegularExpression notice(QStringLiteral("(^|\n)\\d{4}-\\S+Z WARN \\[LogWriter\\] writeDroppedNotice\\(\\): "
                                                              "\\d+ log lines dropped: stderr is not being read\n"));
        QVERIFY(notice.match(QString::fromUtf8(drained)).hasMatch());
        QVERIFY(drained.endsWith("last line\n"));
        QVERIFY(drained.size() < 5000 * 1001);
    }

    // Finalizers run newest first and once, a late one too, then the singletons, newest first.
    void finalizeRunsNewestFirstOnceAndStopsThreads()
    {
        Finalizer* finalizer = Finalizer::instance();
        finalizer->finalize();   // whatever the platform registered runs first, out of the way
        sDestroyed.clear();
        FirstSingleton* first = Singleton<FirstSingleton>::instance();
        QCOMPARE(Singleton<FirstSingleton>::instance(), first);
        Singleton<SecondSingleton>::instance();
        SingletonCleanup registration;   // what the platform library does when it loads
        finalizer->add(QStringLiteral("a"), [&] { sDestroyed.append(QStringLiteral("a")); });
        finalizer->add(QStringLiteral("b"), [&] {
            sDestroyed.append(QStringLiteral("b"));
            finalizer->add(QStringLiteral("late"), [&] { sDestroyed.append(QStringLiteral("late")); });
        });
        SimpleTThread thread(QStringLiteral("Stopper"), true);
        thread.start();
        QVERIFY(thread.isRunning());
        finalizer->finalize();
        QCOMPARE(sDestroyed, (QStringList{"b", "late", "a", "second", "first"}));
        QVERIFY(!Singleton<FirstSingleton>::exists());
        QVERIFY(!Singleton<SecondSingleton>::exists());
        QVERIFY(thread.isFinished());
        finalizer->finalize();
        QCOMPARE(sDestroyed.size(), 5);
    }

    void timerStartedFromAnotherThreadFires()
    {
        QTimer timer;
        timer.setSingleShot(true);
        QSignalSpy fired(&timer, &QTimer::timeout);
        std::thread other([&timer] { TimerUtils::startTimer(&timer, -5); });
        other.join();
        QVERIFY(fired.wait(2000));
        QCOMPARE(timer.interval(), 0);
    }

    void traceTagsComeFromTheEnvironment_data()
    {
        QTest::addColumn<QString>("environment");
        QTest::addColumn<bool>("cacheEnabled");
        QTest::addColumn<bool>("otherEnabled");
        QTest::newRow("unset") << QString() << false << false;
        QTest::newRow("list with spaces") << "fifo, streamcache" << true << false;
        QTest::newRow("all") << "all" << true << true;
    }
    void traceTagsComeFromTheEnvironment()
    {
        QFETCH(QString, environment);
        QFETCH(bool, cacheEnabled);
        QFETCH(bool, otherEnabled);
        qputenv("CABIN_TRACE", environment.toUtf8());
        tag_tracer_init();
        QCOMPARE(tag_tracer_enabled(QStringLiteral("streamcache")), cacheEnabled);
        QCOMPARE(tag_tracer_enabled(QStringLiteral("other")), otherEnabled);
        qunsetenv("CABIN_TRACE");
        tag_tracer_init();
    }
};

QTEST_GUILESS_MAIN(TestCore)
#include "tst_core.moc"
