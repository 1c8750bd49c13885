#include "media_server/MediaPlaybackMetadata.h"
#include "media_server/MediaServer2Impl.h"
#include "tests/support/LogCapture.h"

#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace MediaV2 {

static QString shown(const MediaPlaybackMetadata& record) { return (record.valid ? "valid:" : "invalid:") + record.url; }

// Takes the server player's place: the same completion signals and invokable names, and a
// record of every call that reached it. Like the player, it has no buffer-simulation invokables.
class PlayerStandIn : public QObject
{
    Q_OBJECT
public:
    QStringList calls;   // "seek(0)"; a record shows as "valid:<url>" or "invalid:<url>"

signals:
    void stopComplete(bool ok);
    void pauseComplete(bool ok);
    void playComplete(bool ok);
    void loadMediaComplete(bool ok);
    void seekComplete(bool ok);

public slots:
    void stop() { calls << QStringLiteral("stop()"); }
    void pause() { calls << QStringLiteral("pause()"); }
    void play(qint64 position) { calls << QStringLiteral("play(%1)").arg(position); }
    void loadMedia(const MediaPlaybackMetadata& metadata, const MediaPlaybackMetadata& onDeck)
    {
        calls << QStringLiteral("loadMedia(%1, %2)").arg(shown(metadata), shown(onDeck));
    }
    void seek(int position) { calls << QStringLiteral("seek(%1)").arg(position); }
    void playMediaFile(const QString& fileName) { calls << QStringLiteral("playMediaFile(%1)").arg(fileName); }
    void stopMediaFile() { calls << QStringLiteral("stopMediaFile()"); }
};

} // namespace MediaV2

static const QString kImplFile = QStringLiteral("../../../media_server/MediaServer2Impl.cpp");

// One completion signal of the interface as a local caller sees it; ok is null for the two
// requests without a result.
struct Answer { QString request; ServiceCallContext* context; QVariant ok; };

class TestMediaServerImpl : public QObject
{
    Q_OBJECT

private slots:
    void init();
    void requestIsForwardedLater_data(); void requestIsForwardedLater();
    void methodTable_data(); void methodTable();
    void deferredRequestIsAnsweredOnce_data(); void deferredRequestIsAnsweredOnce();
    void latestRequestTakesThePendingSlot();
    void repeatedRequestIsAnsweredOnce();
    void failureIsLoggedAndAnsweredAtOnce_data(); void failureIsLoggedAndAnsweredAtOnce();
    void serviceStatusIsJson();
    void unknownMethodEndsInError();
    void proxyBodiesGuardTheirContext_data(); void proxyBodiesGuardTheirContext();

private:
    ServiceCallContext* request(const QString& method, const QVariantMap& arguments = {},
                                ServiceCallContext::Kind kind = ServiceCallContext::Local);
    void emitCompletion(const QString& request, bool ok);
    void drainQueuedCalls();

    // Replaced by each init(); declared so that the service goes first, the log last.
    std::unique_ptr<LogCapture> mLog;
    std::unique_ptr<QObject> mContexts;   // parent of every context a test creates
    std::unique_ptr<MediaV2::PlayerStandIn> mPlayer;
    std::unique_ptr<MediaV2::MediaServerImpl2> mImpl;
    QList<Answer> mAnswers;
};

void TestMediaServerImpl::init()
{
    mLog = std::make_unique<LogCapture>();
    mContexts = std::make_unique<QObject>();
    mPlayer = std::make_unique<MediaV2::PlayerStandIn>();
    mImpl = std::make_unique<MediaV2::MediaServerImpl2>();
    mImpl->setPlayer(mPlayer.get());
    mAnswers.clear();
    auto record = [this](const QString& name) {
        return [this, name](ServiceCallContext* context, bool& ok) { mAnswers.append({name, context, ok}); };
    };
    auto recordVoid = [this](const QString& name) {
        return [this, name](ServiceCallContext* context) { mAnswers.append({name, context, QVariant()}); };
    };
    MediaServer2* service = mImpl.get();
    connect(service, &MediaServer2::stopCompleted, this, record("stop"));
    connect(service, &MediaServer2::pauseCompleted, this, record("pause"));
    connect(service, &MediaServer2::playCompleted, this, record("play"));
    connect(service, &MediaServer2::loadMediaCompleted, this, record("loadMedia"));
    connect(service, &MediaServer2::seekCompleted, this, record("seek"));
    connect(service, &MediaServer2::playMediaFileCompleted, this, record("playMediaFile"));
    connect(service, &MediaServer2::stopMediaFileCompleted, this, record("stopMediaFile"));
    connect(service, &MediaServer2::killBufferDownloadCompleted, this, recordVoid("killBufferDownload"));
    connect(service, &MediaServer2::timeoutBufferDownloadCompleted, this, recordVoid("timeoutBufferDownload"));
}

ServiceCallContext* TestMediaServerImpl::request(const QString& method, const QVariantMap& arguments, ServiceCallContext::Kind kind)
{
    auto* context = new ServiceCallContext(kind, method, mContexts.get());
    context->setArguments(arguments);
    return context;
}

void TestMediaServerImpl::emitCompletion(const QString& request, bool ok)
{
    QVERIFY(QMetaObject::invokeMethod(mPlayer.get(), (request + "Complete").toLatin1(), Qt::DirectConnection, Q_ARG(bool, ok)));
}

// Queued calls of one thread run in the order they were posted: once a marker posted now has
// run, everything queued before it has run too.
void TestMediaServerImpl::drainQueuedCalls()
{
    bool markerRan = false;
    QMetaObject::invokeMethod(this, [&markerRan] { markerRan = true; }, Qt::QueuedConnection);
    QTRY_VERIFY(markerRan);
}

void TestMediaServerImpl::requestIsForwardedLater_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariantMap>("arguments");
    QTest::addColumn<QString>("expectedCall");
    QTest::addColumn<QStringList>("expectedIgnored");
    QTest::addColumn<QVariant>("expectedAtOnce");   // null: the answer waits for the player
    const QVariant waits;
    QTest::newRow("play without start position starts at 0") << "play" << QVariantMap() << "play(0)" << QStringList() << waits;
    QTest::newRow("play widens the largest int to the player's qint64")
        << "play" << QVariantMap{{"milliSecondsStartPos", 2147483647}} << "play(2147483647)" << QStringList() << waits;
    QTest::newRow("play names an extra argument as ignored and still plays")
        << "play" << QVariantMap{{"milliSecondsStartPos", 1200}, {"volume", 3}} << "play(1200)" << QStringList{"volume"} << waits;
    QTest::newRow("seek without position seeks to 0") << "seek" << QVariantMap() << "seek(0)" << QStringList() << waits;
    QTest::newRow("stop names every argument it does not take as ignored")
        << "stop" << QVariantMap{{"force", true}, {"reason", "user"}} << "stop()" << QStringList{"force", "reason"} << waits;
    QTest::newRow("loadMedia without strings hands two records parsed from empty text")
        << "loadMedia" << QVariantMap() << "loadMedia(valid:, valid:)" << QStringList() << waits;
    QTest::newRow("loadMedia hands the item to play first, the on-deck item second, and ignores extras")
        << "loadMedia"
        << QVariantMap{{"playbackMetadata", R"({"url":"http://media.test/now.mp3"})"},
                       {"onDeckMetadata", R"({"url":"http://media.test/next.mp3"})"}, {"priority", 1}}
        << "loadMedia(valid:http://media.test/now.mp3, valid:http://media.test/next.mp3)" << QStringList{"priority"} << waits;
    QTest::newRow("playMediaFile answers true before the player runs")
        << "playMediaFile" << QVariantMap{{"fileName", "/missing.ogg"}} << "playMediaFile(/missing.ogg)" << QStringList()
        << QVariant(true);
    QTest::newRow("stopMediaFile answers true before the player runs")
        << "stopMediaFile" << QVariantMap{{"fileName", "x"}} << "stopMediaFile()" << QStringList{"fileName"} << QVariant(true);
}

void TestMediaServerImpl::requestIsForwardedLater()
{
    QFETCH(QString, method);
    QFETCH(QVariantMap, arguments);
    QFETCH(QString, expectedCall);
    QFETCH(QStringList, expectedIgnored);
    QFETCH(QVariant, expectedAtOnce);
    ServiceCallContext* context = request(method, arguments);
    mImpl->processRequest(context);
    QVERIFY2(mPlayer->calls.isEmpty(), "the player must be called in a later turn of the event loop");
    QCOMPARE(context->ignoredArgs(), expectedIgnored);
    QCOMPARE(context->deferredResponse(), expectedAtOnce.isNull());
    QCOMPARE(mAnswers.size(), expectedAtOnce.isNull() ? 0 : 1);
    if (!expectedAtOnce.isNull()) {
        QCOMPARE(mAnswers[0].context, context);
        QCOMPARE(mAnswers[0].ok, expectedAtOnce);
    }
    QTRY_COMPARE(mPlayer->calls, QStringList{expectedCall});
    QCOMPARE(mLog->asserts().size(), 0);
}

void TestMediaServerImpl::methodTable_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<int>("expectedTimeout");
    QTest::addColumn<bool>("expectedExists");
    for (const char* name : {"stop", "pause", "play", "loadMedia", "seek", "playMediaFile", "stopMediaFile"})
        QTest::addRow("%s waits 3000 ms", name) << QString(name) << 3000 << true;
    for (const char* name : {"killBufferDownload", "timeoutBufferDownload", "ServiceStatus"})
        QTest::addRow("%s has the short 250 ms", name) << QString(name) << 250 << true;
    QTest::newRow("unknown name has the short timeout and does not exist") << "playOrPause" << 250 << false;
}

void TestMediaServerImpl::methodTable()
{
    QFETCH(QString, method);
    QFETCH(int, expectedTimeout);
    QFETCH(bool, expectedExists);
    QCOMPARE(mImpl->timeout(method), expectedTimeout);
    QCOMPARE(mImpl->methodExists(method), expectedExists);
    QCOMPARE(mImpl->netStatsCategory(method), 0);
}

void TestMediaServerImpl::deferredRequestIsAnsweredOnce_data()
{
    QTest::addColumn<QString>("method");
    QTest::addColumn<int>("kind");
    QTest::addColumn<bool>("ok");
    for (const char* name : {"stop", "pause", "play", "loadMedia", "seek"})
        for (bool ok : {true, false})
            QTest::addRow("%s answered once with the player's %s", name, ok ? "true" : "false")
                << QString(name) << int(ServiceCallContext::Local) << ok;
    for (bool ok : {true, false})
        QTest::addRow("remote play gets the player's %s as its result", ok ? "true" : "false")
            << "play" << int(ServiceCallContext::Server) << ok;
}

void TestMediaServerImpl::deferredRequestIsAnsweredOnce()
{
    QFETCH(QString, method);
    QFETCH(int, kind);
    QFETCH(bool, ok);
    ServiceCallContext* context = request(method, {}, ServiceCallContext::Kind(kind));
    QSignalSpy answered(context, &ServiceCallContext::answered);
    mImpl->processRequest(context);
    QTRY_COMPARE(mPlayer->calls.size(), 1);
    QVERIFY2(mAnswers.isEmpty() && answered.isEmpty(), "no answer before the player completes");
    emitCompletion(method, ok);
    QTRY_COMPARE(mAnswers.size() + answered.count(), 1);
    if (kind == ServiceCallContext::Local) {
        QCOMPARE(mAnswers[0].request, method);
        QCOMPARE(mAnswers[0].context, context);
        QCOMPARE(mAnswers[0].ok, QVariant(ok));
    }
    // A later emission, with no request waiting, reaches nobody.
    emitCompletion(method, !ok);
    drainQueuedCalls();
    QCOMPARE(mAnswers.size() + answered.count(), 1);
    QCOMPARE(context->results().value("_rval_"), kind == ServiceCallContext::Server ? QVariant(ok) : QVariant());
    QCOMPARE(mLog->asserts().size(), 0);
}

// One pending slot, not a queue: the earlier caller's answer goes to the later caller.
void TestMediaServerImpl::latestRequestTakesThePendingSlot()
{
    ServiceCallContext* first = request("pause");
    ServiceCallContext* second = request("stop");
    mImpl->processRequest(first);
    mImpl->processRequest(second);
    QTRY_COMPARE(mPlayer->calls, (QStringList{"pause()", "stop()"}));

    emitCompletion("pause", true);
    QTRY_COMPARE(mAnswers.size(), 1);
    QCOMPARE(mAnswers[0].request, QString("pause"));
    QCOMPARE(mAnswers[0].context, second);

    emitCompletion("stop", false);
    QTRY_COMPARE(mAnswers.size(), 2);
    QCOMPARE(mAnswers[1].request, QString("stop"));
    QCOMPARE(mAnswers[1].context, second);
    QCOMPARE(mAnswers[1].ok, QVariant(false));
}

void TestMediaServerImpl::repeatedRequestIsAnsweredOnce()
{
    ServiceCallContext* first = request("stop");
    ServiceCallContext* second = request("stop");
    mImpl->processRequest(first);
    mImpl->processRequest(second);
    QTRY_COMPARE(mPlayer->calls, (QStringList{"stop()", "stop()"}));
    emitCompletion("stop", true);
    QTRY_COMPARE(mAnswers.size(), 1);
    QCOMPARE(mAnswers[0].context, second);
    QCoreApplication::processEvents();
    QCOMPARE(mAnswers.size(), 1);
    QVERIFY(mLog->asserts().isEmpty());
}

void TestMediaServerImpl::failureIsLoggedAndAnsweredAtOnce_data()
{
    QTest::addColumn<bool>("withPlayer");
    QTest::addColumn<QString>("method");
    QTest::addColumn<QVariant>("expectedOk");   // null: the request has no result
    QTest::addColumn<QString>("expectedCondition");
    QTest::addColumn<QString>("expectedMessage");
    QTest::newRow("killBufferDownload cannot reach the failure simulation")
        << true << "killBufferDownload" << QVariant()
        << R"(QMetaObject::invokeMethod( mPlayer, "mediaBufferSimulateFailure", Qt::QueuedConnection ))"
        << "killBufferDownload(): failed to invoke GStreamerServerPlayer::mediaBufferSimulateFailure()";
    QTest::newRow("timeoutBufferDownload cannot reach the timeout simulation")
        << true << "timeoutBufferDownload" << QVariant()
        << R"(QMetaObject::invokeMethod( mPlayer, "mediaBufferSimulateTimeout", Qt::QueuedConnection ))"
        << "timeoutBufferDownload(): failed to invoke GStreamerServerPlayer::mediaBufferSimulateTimeout()";
    for (const char* name : {"stop", "pause", "play", "loadMedia", "seek", "playMediaFile", "stopMediaFile"})
        QTest::addRow("%s without player answers false", name)
            << false << QString(name) << QVariant(false) << "false" << "Built without gstreamer!";
    for (const char* name : {"killBufferDownload", "timeoutBufferDownload"})
        QTest::addRow("%s without player completes", name) << false << QString(name) << QVariant() << "false"
                                                             << "Built without gstreamer!";
}

void TestMediaServerImpl::failureIsLoggedAndAnsweredAtOnce()
{
    QFETCH(bool, withPlayer);
    QFETCH(QString, method);
    QFETCH(QVariant, expectedOk);
    QFETCH(QString, expectedCondition);
    QFETCH(QString, expectedMessage);
    if (!withPlayer)
        mImpl->setPlayer(nullptr);
    ServiceCallContext* context = request(method);
    mImpl->processRequest(context);
    QVERIFY(!context->deferredResponse());
    QCOMPARE(mAnswers.size(), 1);
    QCOMPARE(mAnswers[0].request, method);
    QCOMPARE(mAnswers[0].context, context);
    QCOMPARE(mAnswers[0].ok, expectedOk);
    const QList<LogRecord> asserts = mLog->asserts();
    QCOMPARE(asserts.size(), 1);
    QCOMPARE(asserts[0].condition, expectedCondition);
    QCOMPARE(asserts[0].message, expectedMessage);
    QCOMPARE(asserts[0].file, kImplFile);
}

void TestMediaServerImpl::serviceStatusIsJson()
{
    mImpl->statistics().recordRequest(4);
    mImpl->statistics().recordRequest(7);
    ServiceCallContext* context = request("ServiceStatus", {}, ServiceCallContext::Server);
    QSignalSpy answered(context, &ServiceCallContext::answered);
    mImpl->processRequest(context);
    QCOMPARE(answered.count(), 1);
    QCOMPARE(context->contentType(), QString("application/json"));
    QJsonParseError parseError;
    const QJsonObject status = QJsonDocument::fromJson(context->responseBody(), &parseError).object();
    QCOMPARE(parseError.error, QJsonParseError::NoError);
    QCOMPARE(status.keys(), (QStringList{"avgtime", "info", "maxtime", "requests", "uptime"}));
    QCOMPARE(status.value("requests").toInt(), 2);
    QCOMPARE(status.value("avgtime").toDouble(), 5.5);
    QCOMPARE(status.value("maxtime").toInt(), 7);
    QCOMPARE(status.value("info").toString(), QString());
}

void TestMediaServerImpl::unknownMethodEndsInError()
{
    ServiceCallContext* context = request("playOrPause", {}, ServiceCallContext::Server);
    QSignalSpy answered(context, &ServiceCallContext::answered);
    mImpl->processRequest(context);
    QCOMPARE(answered.count(), 1);
    QCOMPARE(context->error(), ServiceCallContext::UnknownMethod);
    QVERIFY(!context->results().contains("_rval_"));
    drainQueuedCalls();
    QVERIFY(mPlayer->calls.isEmpty());
}

void TestMediaServerImpl::proxyBodiesGuardTheirContext_data()
{
    QTest::addColumn<int>("contextKind");   // -1: no context
    QTest::addColumn<QString>("expectedMessage");
    QTest::addColumn<int>("expectedError");
    QTest::newRow("missing context is refused") << -1 << "You must provide a context" << 0;
    QTest::newRow("asynchronous client context still in use is refused")
        << int(ServiceCallContext::Client) << "Do not reuse a context within a request" << 0;
    QTest::newRow("server context means the override is missing")
        << int(ServiceCallContext::Server) << "You probably didn't implement this method with identical signature"
        << int(ServiceCallContext::NotImplemented);
}

void TestMediaServerImpl::proxyBodiesGuardTheirContext()
{
    QFETCH(int, contextKind);
    QFETCH(QString, expectedMessage);
    QFETCH(int, expectedError);
    ServiceCallContext* context = contextKind < 0 ? nullptr : request("play", {}, ServiceCallContext::Kind(contextKind));
    if (contextKind == ServiceCallContext::Client)
        context->initCall("MediaServer2", "play", true, false, 0);
    MediaServer2 proxy(ClientInstance);
    QCOMPARE(proxy.play(5, context), false);
    QCOMPARE(mLog->assertMessages(), QStringList{expectedMessage});
    if (context)
        QCOMPARE(int(context->error()), expectedError);
}

QTEST_GUILESS_MAIN(TestMediaServerImpl)
#include "tst_media_server_impl.moc"
