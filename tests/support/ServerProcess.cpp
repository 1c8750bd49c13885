#include "tests/support/ServerProcess.h"

#include <QCoreApplication>
#include <QDBusPendingCallWatcher>
#include <QDBusVariant>
#include <QDeadlineTimer>
#include <QFile>
#include <QRegularExpression>
#include <QSignalSpy>

namespace {

const QString kService = QStringLiteral("com.kelvramotors.MediaServer2");
const QString kConnectionName = QStringLiteral("server-process");
// Start-up of the server under the sanitizers on a busy machine.
const int kStartMs = 30000;

} // namespace

ServerProcess::ServerProcess()
    : mConnection(QString())
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
    QDBusConnection::disconnectFromBus(kConnectionName);
    if (isRunning()) {
        mProcess.kill();
        mProcess.waitForFinished(5000);
    }
}

bool ServerProcess::start(const QStringList& settings)
{
    if (!mBus.isRunning() || !mHome.isValid())
        return false;
    QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
    env.insert(QStringLiteral("XDG_CONFIG_HOME"), mHome.filePath(QStringLiteral("config")));
    env.insert(QStringLiteral("XDG_CACHE_HOME"), mHome.filePath(QStringLiteral("cache")));
    env.remove(QStringLiteral("JOURNAL_STREAM"));
    mProcess.setProcessEnvironment(env);
    QStringList args{QStringLiteral("--set"), QStringLiteral("service/bus=") + mBus.address()};
    for (const QString& setting : settings)
        args << QStringLiteral("--set") << setting;
    mProcess.start(qEnvironmentVariable("CABIN_BIN_DIR", QCoreApplication::applicationDirPath()) + QStringLiteral("/cabin-media-server"), args);
    mProcess.waitForStarted(kStartMs);
    const QDeadlineTimer deadline(kStartMs);
    while (!mLog.contains("run(): running") && isRunning() && !deadline.hasExpired())
        mProcess.waitForReadyRead(100);
    readLog();
    if (!mLog.contains("run(): running")) {
        qWarning("the server did not start (%s, exit status %d): %s", qPrintable(mProcess.errorString()), mProcess.exitCode(),
                 mLog.constData());
        return false;
    }
    mConnection = QDBusConnection::connectToBus(mBus.address(), kConnectionName);
    return mConnection.isConnected();
}

bool ServerProcess::terminate()
{
    mProcess.terminate();
    const bool finished = mProcess.waitForFinished(30000);
    readLog();
    return finished && mProcess.exitStatus() == QProcess::NormalExit && mProcess.exitCode() == 0;
}

void ServerProcess::readLog()
{
    mLog += mProcess.readAllStandardError();
}

QDBusMessage ServerProcess::request(const QString& method, const QVariantList& args, int timeoutMs)
{
    QDBusMessage message = QDBusMessage::createMethodCall(kService, QStringLiteral("/MediaServer2"), kService, method);
    message.setArguments(args);
    QDBusPendingCallWatcher watcher(mConnection.asyncCall(message, timeoutMs));
    QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
    if (!watcher.isFinished())
        finished.wait(timeoutMs + 5000);
    return watcher.reply();
}

QVariantList ServerProcess::value(const QString& name)
{
    QDBusMessage message = QDBusMessage::createMethodCall(kService, QStringLiteral("/DataValues"),
                                                          QStringLiteral("com.kelvramotors.DataValues"), QStringLiteral("Get"));
    message.setArguments({name});
    const QDBusMessage reply = mConnection.call(message, QDBus::Block, 10000);
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
