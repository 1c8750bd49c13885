#include "tests/support/ServerProcess.h"

#include <QCoreApplication>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSignalSpy>
#include <QTest>

#include <csignal>

namespace {

const QString kService = QStringLiteral("com.kelvramotors.MediaServer2");
// Start-up of the server under the sanitizers on a busy machine.
const int kStartMs = 30000;

} // namespace

ServerProcess::ServerProcess(const QString& journalStream)
    : mJournalStream(journalStream)
    , mConnectionName(QStringLiteral("server-process-%1").arg(quintptr(this)))
    , mConnection(QString())
{
    mProcess.setReadChannel(QProcess::StandardError);
    QObject::connect(&mProcess, &QProcess::readyReadStandardError, [this] { readLog(); });
}

ServerProcess::~ServerProcess()
{
    // For reading a failed run afterwards.
    if (!qEnvironmentVariableIsEmpty("CABIN_SERVER_LOG")) {
        QFile file(qEnvironmentVariable("CABIN_SERVER_LOG"));
        if (file.open(QIODevice::WriteOnly))
            file.write(mLog);
    }
    mConnection = QDBusConnection(QString());
    QDBusConnection::disconnectFromBus(mConnectionName);
    if (isRunning()) {
        mProcess.kill();
        mProcess.waitForFinished(5000);
    }
}

void ServerProcess::launch(const QStringList& args)
{
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), mHome.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), mHome.filePath(QStringLiteral("cache")));
    env.remove(QStringLiteral("CACHE_DIRECTORY"));
    env.remove(QStringLiteral("NOTIFY_SOCKET"));
    env.remove(QStringLiteral("WATCHDOG_USEC"));
    env.insert(mExtraEnvironment);
    if (mJournalStream.isEmpty())
        env.remove(QStringLiteral("JOURNAL_STREAM"));
    else
        env.insert(QStringLiteral("JOURNAL_STREAM"), mJournalStream);
    mProcess.setProcessEnvironment(env);
    mProcess.start(qEnvironmentVariable("CABIN_BIN_DIR", QCoreApplication::applicationDirPath()) + QStringLiteral("/cabin-media-server"), args);
    mProcess.waitForStarted(kStartMs);
}

bool ServerProcess::waitUntil(const std::function<bool()>& ready)
{
    const QDeadlineTimer deadline(kStartMs);
    while (!ready() && isRunning() && !deadline.hasExpired())
        mProcess.waitForFinished(50);
    return ready();
}

bool ServerProcess::run(const QStringList& args)
{
    launch(args);
    const bool ended = waitForExit();
    mOut = QString::fromUtf8(mProcess.readAllStandardOutput());
    return ended;
}

bool ServerProcess::start(const QStringList& settings, const QStringList& options)
{
    if (busAddress().isEmpty() || !mHome.isValid())
        return false;
    QStringList args = options;
    for (const QString& setting : settings)
        args << QStringLiteral("--set") << setting;
    // A restart in the same home keeps the earlier run's log: only this run's line counts.
    const qsizetype from = mLog.size();
    launch(args << QStringLiteral("--set") << QStringLiteral("service/bus=") + busAddress());
    if (!waitUntil([this, from] { readLog(); return mLog.indexOf("run(): running", from) >= 0; })) {
        qWarning("the server did not start (%s, exit status %d): %s", qPrintable(mProcess.errorString()), mProcess.exitCode(),
                 mLog.constData());
        return false;
    }
    mConnection = QDBusConnection::connectToBus(busAddress(), mConnectionName);
    return mConnection.isConnected();
}

bool ServerProcess::startWithStreams(const std::function<void()>& arrangeStreams)
{
    if (busAddress().isEmpty())
        return false;
    mProcess.setChildProcessModifier(arrangeStreams);
    launch({QStringLiteral("--set"), QStringLiteral("service/bus=") + busAddress()});
    return waitUntil([this] { return catchesSigterm(); });
}

// Until exec, the child is a copy of the test, which catches SIGTERM too.
bool ServerProcess::catchesSigterm() const
{
    const QString proc = QStringLiteral("/proc/%1/").arg(mProcess.processId());
    if (mProcess.processId() == 0 || !QFile::symLinkTarget(proc + QStringLiteral("exe")).endsWith(QLatin1String("/cabin-media-server")))
        return false;
    QFile status(proc + QStringLiteral("status"));
    if (!status.open(QIODevice::ReadOnly))
        return false;
    static const QRegularExpression caught(QStringLiteral("^SigCgt:\\s*([0-9a-f]+)$"), QRegularExpression::MultilineOption);
    const QRegularExpressionMatch match = caught.match(QString::fromLatin1(status.readAll()));
    return match.hasMatch() && (match.captured(1).toULongLong(nullptr, 16) & (1ULL << (SIGTERM - 1)));
}

bool ServerProcess::terminate()
{
    mProcess.terminate();
    return waitForExit() && mProcess.exitStatus() == QProcess::NormalExit && mProcess.exitCode() == 0;
}

bool ServerProcess::waitForExit(int timeoutMs)
{
    const bool finished = mProcess.waitForFinished(timeoutMs);
    readLog();
    return finished;
}

void ServerProcess::readLog()
{
    mLog += mProcess.readAllStandardError();
}

QString ServerProcess::busAddress()
{
    if (!mBus)
        mBus = std::make_unique<PrivateBus>(mBusConfig);
    return mBus->address();
}

QString ServerProcess::writeFile(const QString& name, const QByteArray& content) const
{
    const QString path = mHome.filePath(name);
    QDir().mkpath(QFileInfo(path).path());
    QFile file(path);
    if (file.open(QIODevice::WriteOnly))
        file.write(content);
    return path;
}

QDBusMessage ServerProcess::call(const QString& path, const QString& interface, const QString& method, const QVariantList& args,
                                 int timeoutMs)
{
    QDBusMessage message = QDBusMessage::createMethodCall(kService, path, interface, method);
    message.setArguments(args);
    QDBusPendingCallWatcher watcher(mConnection.asyncCall(message, timeoutMs));
    QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
    if (!watcher.isFinished())
        finished.wait(timeoutMs + 5000);
    return watcher.reply();
}

QDBusMessage ServerProcess::request(const QString& method, const QVariantList& args, int timeoutMs)
{
    return call(QStringLiteral("/MediaServer2"), kService, method, args, timeoutMs);
}

QVariantList ServerProcess::value(const QString& name)
{
    const QDBusMessage reply = call(QStringLiteral("/DataValues"), QStringLiteral("com.kelvramotors.DataValues"), QStringLiteral("Get"), {name});
    if (reply.type() != QDBusMessage::ReplyMessage)
        return {reply.errorName()};
    return {reply.arguments().value(0), reply.arguments().value(1).value<QDBusVariant>().variant()};
}

QStringList ServerProcess::logLines() const
{
    const_cast<ServerProcess*>(this)->readLog();
    return QString::fromUtf8(mLog).split(QLatin1Char('\n'), Qt::SkipEmptyParts);
}

bool ServerProcess::logHas(const QString& fragment, int from) const
{
    const QStringList lines = logLines();
    for (int i = from; i < lines.size(); ++i)
        if (lines.at(i).contains(fragment))
            return true;
    return false;
}

QStringList ServerProcess::pairsSince(int from) const
{
    static const QRegularExpression change(QStringLiteral("MEDIA2_serverState changed: (.*)$"));
    QStringList pairs;
    const QStringList lines = logLines();
    for (int i = from; i < lines.size(); ++i) {
        const QRegularExpressionMatch match = change.match(lines.at(i));
        if (match.hasMatch())
            pairs << match.captured(1);
    }
    return pairs;
}

QString ServerProcess::publishedPair() const
{
    const QStringList pairs = pairsSince(0);
    return pairs.isEmpty() ? QString() : pairs.last();
}

bool ServerProcess::publishedInOrder(const QStringList& expected, int from) const
{
    qsizetype next = 0;
    for (const QString& pair : pairsSince(from))
        if (next < expected.size() && pair == expected.at(next))
            ++next;
    return next == expected.size();
}

bool ServerProcess::waitForState(const QString& state, int since, int timeoutMs) const
{
    const auto reached = [&] {
        const QStringList pairs = since < 0 ? QStringList{publishedPair()} : pairsSince(since);
        return std::any_of(pairs.begin(), pairs.end(), [&](const QString& pair) { return pair.startsWith(state + QLatin1Char(',')); });
    };
    const QDeadlineTimer deadline(timeoutMs);
    while (!reached() && !deadline.hasExpired())
        QTest::qWait(20);
    if (reached())
        return true;
    // The server's own account of the wait, for a failure seen only once in a while.
    const QStringList log = logLines();
    qWarning("waited for %s since line %d, published: %s; the server's last log lines:\n%s", qPrintable(state), since,
             qPrintable(pairsSince(0).join(QStringLiteral(" | "))), qPrintable(log.mid(qMax(0, int(log.size()) - 40)).join(QLatin1Char('\n'))));
    return false;
}
