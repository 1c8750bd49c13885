#include "media_server/MediaPlaybackMetadata.h"
#include "media_server/MediaServer2Impl.h"
#include "platform/service/DBusServiceObject.h"
#include "tests/support/LogCapture.h"
#include "tests/support/PrivateBus.h"

#include <QDBusPendingCallWatcher>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSignalSpy>
#include <QTest>

#include <memory>

namespace MediaV2 {

// The player's completion signals and invokables (none for buffer simulation), recording each call.
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
        auto shown = [](const MediaPlaybackMetadata& m) { return (m.valid ? "valid:" : "invalid:") + m.url; };
        calls << QStringLiteral("loadMedia(%1, %2)").arg(shown(metadata), shown(onDeck));
    }
    void seek(int position) { calls << QStringLiteral("seek(%1)").arg(position); }
    void playMediaFile(const QString& fileName) { calls << QStringLiteral("playMediaFile(%1)").arg(fileName); }
    void stopMediaFile() { calls << QStringLiteral("stopMediaFile()"); }
};

} // namespace MediaV2

class TestMediaServerImpl : public QObject
{
    Q_OBJECT

private slots:
    void init()
    {
        mLog = std::make_unique<LogCapture>();
        mContexts = std::make_unique<QObject>();
        mPlayer = std::make_unique<MediaV2::PlayerStandIn>();
        mImpl = std::make_unique<MediaV2::MediaServerImpl2>();
        mImpl->setPlayer(mPlayer.get());
        mAnswers.clear();
        auto record = [this](const QString& name) {
            return [this, name](ServiceCallContext* c, bool ok) { mAnswers << name + " -> " + c->objectName() + ": " + (ok ? "true" : "false"); };
        };
        connect(mImpl.get(), &MediaServer2::stopCompleted, this, record("stop"));
        connect(mImpl.get(), &MediaServer2::pauseCompleted, this, record("pause"));
        connect(mImpl.get(), &MediaServer2::playCompleted, this, record("play"));
        connect(mImpl.get(), &MediaServer2::loadMediaCompleted, this, record("loadMedia"));
        connect(mImpl.get(), &MediaServer2::playMediaFileCompleted, this, record("playMediaFile"));
        connect(mImpl.get(), &MediaServer2::stopMediaFileCompleted, this, record("stopMediaFile"));
    }

    // Every row is answered once with the player's result, except the two file requests, which
    // answer true at once. Extra arguments are named as ignored.
    void requestIsForwardedAndAnsweredOnce_data()
    {
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantMap>("arguments");
        QTest::addColumn<bool>("remote");
        QTest::addColumn<QString>("expectedCall");
        QTest::addColumn<QStringList>("expectedIgnored");
        QTest::addColumn<bool>("ok");   // the player's result; the two file requests answer true at once
        const QString now = "{\"url\":\"http://media.test/now.mp3\"}", next = "{\"url\":\"http://media.test/next.mp3\"}";
        QTest::newRow("remote play without start position, result true")
            << "play" << QVariantMap() << true << "play(0)" << QStringList() << true;
        QTest::newRow("remote play ignores an extra argument, result false")
            << "play" << QVariantMap{{"milliSecondsStartPos", 1200}, {"volume", 3}} << true << "play(1200)" << QStringList{"volume"}
            << false;
        QTest::newRow("stop ignores every argument")
            << "stop" << QVariantMap{{"force", true}, {"reason", "user"}} << false << "stop()" << QStringList{"force", "reason"} << false;
        QTest::newRow("loadMedia hands the item to play first")
            << "loadMedia" << QVariantMap{{"playbackMetadata", now}, {"onDeckMetadata", next}, {"priority", 1}} << false
            << "loadMedia(valid:http://media.test/now.mp3, valid:http://media.test/next.mp3)" << QStringList{"priority"} << true;
        QTest::newRow("playMediaFile")
            << "playMediaFile" << QVariantMap{{"fileName", "/a.ogg"}} << false << "playMediaFile(/a.ogg)" << QStringList() << true;
        QTest::newRow("stopMediaFile")
            << "stopMediaFile" << QVariantMap{{"fileName", "x"}} << false << "stopMediaFile()" << QStringList{"fileName"} << true;
    }

    void requestIsForwardedAndAnsweredOnce()
    {
        QFETCH(QString, method);
        QFETCH(QVariantMap, arguments);
        QFETCH(bool, remote);
        QFETCH(QString, expectedCall);
        QFETCH(QStringList, expectedIgnored);
        QFETCH(bool, ok);
        const bool atOnce = method.endsWith("MediaFile");
        ServiceCallContext* context = request(method, arguments, remote ? ServiceCallContext::Server : ServiceCallContext::Local);
        QSignalSpy answered(context, &ServiceCallContext::answered);
        mImpl->processRequest(context);
        QVERIFY2(mPlayer->calls.isEmpty(), "the player must be called in a later turn of the event loop");
        QCOMPARE(context->ignoredArgs(), expectedIgnored);
        QCOMPARE(mAnswers.size() + answered.count(), atOnce ? 1 : 0);
        QTRY_COMPARE(mPlayer->calls, QStringList{expectedCall});
        if (!atOnce) {
            complete(method, ok);
            QCOMPARE(mAnswers.size() + answered.count(), 1);
            complete(method, !ok);   // with no request waiting, this reaches nobody
            QCOMPARE(mAnswers.size() + answered.count(), 1);
        }
        if (!remote)
            QCOMPARE(mAnswers, QStringList{method + " -> caller: " + (ok ? "true" : "false")});
        QCOMPARE(context->results().value("_rval_"), remote ? QVariant(ok) : QVariant());
        QCOMPARE(mLog->asserts().size(), 0);
    }

    // One pending slot, not a queue: the earlier caller's answer goes to the later caller, and a
    // repeated request leaves one connection behind, so it is answered once.
    void pendingSlotHoldsTheLatestCaller_data()
    {
        QTest::addColumn<QString>("first");
        QTest::addColumn<QString>("second");
        QTest::addColumn<QString>("expectedAnswers");
        QTest::newRow("pause, then stop") << "pause" << "stop" << "pause -> later: true, stop -> later: false";
        QTest::newRow("stop, then stop again") << "stop" << "stop" << "stop -> later: true";
    }

    void pendingSlotHoldsTheLatestCaller()
    {
        QFETCH(QString, first);
        QFETCH(QString, second);
        QFETCH(QString, expectedAnswers);
        mImpl->processRequest(request(first, {}, ServiceCallContext::Local, "earlier"));
        mImpl->processRequest(request(second, {}, ServiceCallContext::Local, "later"));
        QTRY_COMPARE(mPlayer->calls, (QStringList{first + "()", second + "()"}));
        complete(first, true);
        complete(second, false);
        QCOMPARE(mAnswers.join(", "), expectedAnswers);
        QVERIFY(mLog->asserts().isEmpty());
    }

    void serviceStatusIsJson()
    {
        mImpl->statistics().recordRequest(4);
        mImpl->statistics().recordRequest(7);
        ServiceCallContext* context = request("ServiceStatus", {}, ServiceCallContext::Server);
        mImpl->processRequest(context);
        QCOMPARE(context->contentType(), QString("application/json"));
        const QJsonObject status = QJsonDocument::fromJson(context->responseBody()).object();
        QCOMPARE(status.keys(), (QStringList{"avgtime", "info", "maxtime", "requests", "uptime"}));
        QCOMPARE(status.value("requests").toInt(), 2);
        QCOMPARE(status.value("avgtime").toDouble(), 5.5);
        QCOMPARE(status.value("maxtime").toInt(), 7);
    }

    // Client bodies refuse a missing or busy context; reached with a server context, the override is missing.
    void proxyBodiesGuardTheirContext()
    {
        MediaServer2 proxy(ClientInstance);
        QCOMPARE(proxy.play(5, nullptr), false);
        ServiceCallContext* busy = request("play", {}, ServiceCallContext::Client);
        busy->initCall("MediaServer2", "play", true, false, 0);
        QCOMPARE(proxy.play(5, busy), false);
        QCOMPARE(busy->error(), ServiceCallContext::NoError);
        ServiceCallContext* server = request("play", {}, ServiceCallContext::Server);
        QCOMPARE(proxy.play(5, server), false);
        QCOMPARE(server->error(), ServiceCallContext::NotImplemented);
        QCOMPARE(mLog->assertMessages(), (QStringList{"You must provide a context", "Do not reuse a context within a request",
                                                      "You probably didn't implement this method with identical signature"}));
    }

    // Served on a bus, a request the player never completes is answered with an error once
    // twice its time-out has passed, so a caller does not wait out its own, longer one.
    void unansweredRequestGetsAnErrorOnTheBus()
    {
        PrivateBus bus;
        QVERIFY(bus.isRunning());
        QDBusConnection server = QDBusConnection::connectToBus(bus.address(), "server");
        QDBusConnection client = QDBusConnection::connectToBus(bus.address(), "client");
        QVERIFY(server.registerVirtualObject("/MediaServer2", new DBusServiceObject(mImpl.get(), server, mImpl.get())));
        QDBusMessage play = QDBusMessage::createMethodCall(server.baseService(), "/MediaServer2", "com.kelvramotors.MediaServer2", "play");
        play.setArguments({5000});
        QDBusPendingCallWatcher watcher(client.asyncCall(play, 60000));   // far beyond the 2 x 3000 ms
        QSignalSpy finished(&watcher, &QDBusPendingCallWatcher::finished);
        QVERIFY(finished.wait(30000));
        QCOMPARE(mPlayer->calls, QStringList{"play(5000)"});
        QCOMPARE(watcher.error().name(), QString("com.kelvramotors.Error.NoAnswer"));
        QVERIFY2(watcher.error().message().contains("no answer to play"), qPrintable(watcher.error().message()));
        server.unregisterObject("/MediaServer2");
        QDBusConnection::disconnectFromBus("server");
        QDBusConnection::disconnectFromBus("client");
    }

private:
    // The context is named after its caller, so that an answer shows whom it reached.
    ServiceCallContext* request(const QString& method, const QVariantMap& arguments = {},
                                ServiceCallContext::Kind kind = ServiceCallContext::Local, const QString& caller = "caller")
    {
        auto* context = new ServiceCallContext(kind, method, mContexts.get());
        context->setArguments(arguments);
        context->setObjectName(caller);
        return context;
    }
    // The player completes; queued calls run in the order they were posted, so once a marker posted
    // now has run, everything the completion queued has run too.
    void complete(const QString& request, bool ok)
    {
        QVERIFY(QMetaObject::invokeMethod(mPlayer.get(), (request + "Complete").toLatin1(), Qt::DirectConnection, Q_ARG(bool, ok)));
        bool markerRan = false;
        QMetaObject::invokeMethod(this, [&markerRan] { markerRan = true; }, Qt::QueuedConnection);
        QTRY_VERIFY(markerRan);
    }

    // Replaced by each init(); declared so that the service goes first, the log last.
    std::unique_ptr<LogCapture> mLog;
    std::unique_ptr<QObject> mContexts;   // parent of every context a test creates
    std::unique_ptr<MediaV2::PlayerStandIn> mPlayer;
    std::unique_ptr<MediaV2::MediaServerImpl2> mImpl;
    QStringList mAnswers;   // completion signals a local caller sees: "stop -> caller: true"
};

QTEST_GUILESS_MAIN(TestMediaServerImpl)
#include "tst_media_server_impl.moc"
