// The real cabin-media-server on a private bus, driven over D-Bus as the display drives it, with
// media from a loopback server in this process and its audio written to a WAV file in real time:
// what a client asks is what it hears, and the published state always tells the truth.

#include "tests/support/SelfSignedCertificate.h"
#include "tests/support/ServerProcess.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestFiles.h"
#include "tests/support/TestHttpServer.h"
#include "tests/support/WavReader.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QtTest>

namespace {

// Generous: the suite also runs under the sanitizers with other suites beside it.
const int kWaitMs = 60000;
const int kShortSeconds = 4;
const int kLongSeconds = 16;
const QString kNoReply = QStringLiteral("org.freedesktop.DBus.Error.NoReply");

// Whether `expected` appears in `seen` in this order, other entries allowed in between.
bool inOrder(const QStringList& seen, const QStringList& expected)
{
    qsizetype next = 0;
    for (const QString& entry : seen)
        if (next < expected.size() && entry == expected.at(next))
            ++next;
    return next == expected.size();
}

} // namespace

class TestServerEndToEnd : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase()
    {
        QString error;
        mShort = SteppedTone::file(SteppedTone::Format::Mp3, kShortSeconds, &error);
        mLong = SteppedTone::file(SteppedTone::Format::Mp3, kLongSeconds, &error);
        QVERIFY2(!mShort.isEmpty() && !mLong.isEmpty(), qPrintable(error));
        TestHttpResource shortItem;   // one URL for several items: the cache knows them by key
        shortItem.body = fileContents(mShort);
        mMedia.setResource("/short.mp3", shortItem);
        TestHttpResource slow;   // two seconds of loading
        slow.body = fileContents(mShort);
        slow.bytesPerSecond = 32000;
        mMedia.setResource("/slow.mp3", slow);
        TestHttpResource longItem;
        longItem.body = fileContents(mLong);
        mMedia.setResource("/long.mp3", longItem);
        TestHttpResource radio;
        radio.icy = true;
        radio.body = fileContents(mLong);
        radio.icyMetaInt = 16000;
        radio.icyTitles = QStringList{"One", "Two", "Three"};
        radio.icyTitleSeconds = 1;
        mMedia.setResource("/radio", radio);
        QVERIFY(mMedia.start());
        QVERIFY2(mCertificate.isValid(), qPrintable(mCertificate.error()));
        mTlsMedia.useTls(mCertificate.certificate(), mCertificate.key());
        mTlsMedia.setResource("/long.mp3", longItem);
        QVERIFY(mTlsMedia.start());
        mWav = mServer.home() + QStringLiteral("/out.wav");
        QVERIFY(mServer.start({"gstreamer/audio_sink=audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1 ! wavenc ! "
                               "filesink location=" + mWav + " sync=true",
                               "media_buffer/allow_fifo=true", "media_buffer/download_retries=1", "media_buffer/download_timeout=1000",
                               "mediaserver/stream_cache_debug_log=true", "gstreamer/progress_poll_interval=50"}));
    }

    // A buffered item plays from where it was asked to start (the item's own start position when the
    // play asks for none) to its end, heard, the states published in order; its download's progress
    // ends at 1.0 with every byte counted. Which source plays an item is the caching wrapper's concern.
    void playsFromItsStartToTheEnd_data()
    {
        QTest::addColumn<qint64>("startPosition");   // in the item
        QTest::addColumn<int>("playMs");             // the play request's position
        QTest::addColumn<bool>("https");             // from a server with a self-signed certificate
        QTest::newRow("the item starts at 12 s") << qint64(12000) << 0 << false;
        QTest::newRow("played from 12 s") << qint64(0) << 12000 << false;
        QTest::newRow("played from 12 s, over https from a self-signed server") << qint64(0) << 12000 << true;
    }

    void playsFromItsStartToTheEnd()
    {
        QFETCH(qint64, startPosition);
        QFETCH(int, playMs);
        QFETCH(bool, https);
        const int mark = mServer.logLineCount();
        const int handshakesBefore = mTlsMedia.handshakeCount();
        const QString key = QStringLiteral("start-%1-%2").arg(playMs).arg(https);
        QVERIFY(load(item("/long.mp3", key, {{"should_cache", true}, {"startposition", startPosition}}, https)));
        QCOMPARE(mServer.value("MEDIA2_elapsedTime"), (QVariantList{true, int(startPosition)}));
        QVERIFY(answer("play", {playMs}));
        QVERIFY(mServer.waitForState("PlaybackComplete", mark));
        QCOMPARE(secondsHeard(), WavReader::secondsFromTo(12, kLongSeconds - 1));
        QVERIFY2(inOrder(mServer.pairsSince(mark), {"Loading, NoError", "Loaded, NoError", "TryingToPlay, NoError", "Playing, NoError",
                                                    "PlaybackComplete, NoError"}),
                 qPrintable(mServer.pairsSince(mark).join(" | ")));
        const quint64 size = quint64(QFileInfo(mLong).size());
        QCOMPARE(mServer.value("MEDIA2_bufferProgress"), (QVariantList{true, 1.0}));
        QCOMPARE(mServer.value("MEDIA2_downloadedBytes"), (QVariantList{true, size}));
        QCOMPARE(mServer.value("MEDIA2_totalBytes"), (QVariantList{true, size}));
        QCOMPARE(mTlsMedia.handshakeCount() > handshakesBefore, https);
    }

    // Requests that arrive while the item is still downloading its first part: a play is done once
    // the item is loaded, and a pause after it cancels it.
    void answersRequestsWhileLoading_data()
    {
        QTest::addColumn<QStringList>("requests");
        QTest::addColumn<QString>("line");
        QTest::addColumn<bool>("heard");
        QTest::newRow("play") << QStringList{"play"} << "play(): held until the item is loaded" << true;
        QTest::newRow("play, then pause") << QStringList{"play", "pause"} << "pause(): nothing to pause while the item loads" << false;
    }

    void answersRequestsWhileLoading()
    {
        QFETCH(QStringList, requests);
        QFETCH(QString, line);
        QFETCH(bool, heard);
        const int mark = mServer.logLineCount();
        QVERIFY(load(item("/slow.mp3", QStringLiteral("loading-%1").arg(requests.size()))));
        for (const QString& request : requests)
            QVERIFY(answer(request, request == "play" ? QVariantList{0} : QVariantList{}));
        QTRY_VERIFY_WITH_TIMEOUT(mServer.logHas(line, mark), kWaitMs);
        QVERIFY(mServer.waitForState("Loaded", mark));
        if (heard) {
            QVERIFY(mServer.waitForState("PlaybackComplete", mark));
            QCOMPARE(secondsHeard(), WavReader::secondsFromTo(0, kShortSeconds - 1));
            return;
        }
        QVERIFY(answer("stop"));
        QVERIFY(mServer.waitForState("NoMedia", mark));
        QVERIFY2(!mServer.pairsSince(mark).contains("TryingToPlay, NoError"), qPrintable(mServer.pairsSince(mark).join(" | ")));
    }

    // Each request in turn on a 16 s item: its answer, the state it leaves, and the line that shows
    // a request in the state it asks for is answered without touching the engine.
    void answersControlRequests()
    {
        struct Step {
            const char* method;
            QVariantList args;
            const char* reply;   // "true", "false" or "none": never answered
            const char* state;   // published afterwards
            const char* line;    // in the log afterwards, if any
        };
        const QList<Step> steps{
            {"seek", {3000}, "none", "Loaded", "seek(): can't seek in current state: Loaded, must be playing or paused"},
            {"play", {0}, "true", "Playing", ""},
            {"play", {0}, "true", "Playing", "play(): already playing"},
            {"pause", {}, "true", "Paused", ""},
            {"pause", {}, "true", "Paused", "pause(): already paused"},
            {"seek", {6000}, "true", "Paused", ""},
            {"play", {0}, "true", "Playing", ""},
            {"seek", {2000}, "true", "Playing", ""},
            {"stop", {}, "true", "NoMedia", ""},
            {"stop", {}, "true", "NoMedia", "internalStop(): already stopped"},
            {"seek", {1000}, "none", "NoMedia", "seek(): can't seek in current state: NoMedia, must be playing or paused"},
        };
        QVERIFY(load(item("/long.mp3", "control")));
        QVERIFY(mServer.waitForState("Loaded"));
        for (const Step& step : steps) {
            const int mark = mServer.logLineCount();
            const QDBusMessage reply = mServer.request(step.method, step.args, 3000);
            const QString got = reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0).toString() : reply.errorName();
            const QString what = QStringLiteral("%1(%2)").arg(step.method, step.args.value(0).toString());
            QVERIFY2(got == (qstrcmp(step.reply, "none") == 0 ? kNoReply : QString::fromLatin1(step.reply)), qPrintable(what + ": " + got));
            if (qstrcmp(step.method, "seek") == 0 && got == "true")   // at once, before the engine reports a position
                QCOMPARE(mServer.value("MEDIA2_elapsedTime"), (QVariantList{true, step.args.value(0)}));
            QVERIFY2(mServer.waitForState(step.state), qPrintable(what));
            // The answer can come before the log line reaches the pipe.
            QTRY_VERIFY2_WITH_TIMEOUT(!*step.line || mServer.logHas(step.line, mark), qPrintable(what + ": no line " + step.line), kWaitMs);
        }
        QCOMPARE(mServer.value("MEDIA2_elapsedTime"), (QVariantList{true, 0}));
    }

    // A load while playing stops first, answers once, and the new item is what is heard.
    void loadWhilePlayingStopsFirst()
    {
        QVERIFY(load(item("/long.mp3", "before")));
        QVERIFY(mServer.waitForState("Loaded"));
        QVERIFY(answer("play", {0}));
        QVERIFY(mServer.waitForState("Playing"));
        const int mark = mServer.logLineCount();
        QVERIFY(load(item("/short.mp3", "after")));
        QVERIFY(mServer.waitForState("Loaded"));
        QVERIFY2(inOrder(mServer.pairsSince(mark), {"Stopping, NoError", "NoMedia, NoError", "Loading, NoError", "Loaded, NoError"}),
                 qPrintable(mServer.pairsSince(mark).join(" | ")));
        QVERIFY(mServer.logHas("onStop(): metadata valid -> loadMedia", mark));
        QVERIFY(answer("play", {0}));
        QVERIFY(mServer.waitForState("PlaybackComplete"));
        QCOMPARE(secondsHeard(), WavReader::secondsFromTo(0, kShortSeconds - 1));
    }

    // The item announced as next is preloaded, and plays from the stream cache, complete at once.
    // (When a cache hit counts as a saved download is the caching wrapper's concern.)
    void preloadsTheNextItemAndPlaysItFromTheCache()
    {
        const QVariantMap cached{{"should_cache", true}};
        QVERIFY(load(item("/short.mp3", "cache-a", cached), item("/short.mp3", "cache-b", cached)));
        QVERIFY(answer("play", {0}));
        QVERIFY(mServer.waitForState("PlaybackComplete"));
        QTRY_VERIFY_WITH_TIMEOUT(mServer.logHas("stored cache-b"), kWaitMs);
        const int mark = mServer.logLineCount();
        QVERIFY(load(item("/short.mp3", "cache-b", cached)));
        QTRY_VERIFY_WITH_TIMEOUT(mServer.logHas("Cached in StreamCache, playing from", mark), kWaitMs);
        QVERIFY(answer("play", {0}));
        QVERIFY(mServer.waitForState("PlaybackComplete", mark));
        QCOMPARE(mServer.value("MEDIA2_bufferProgress"), (QVariantList{true, 1.0}));
        QCOMPARE(secondsHeard(), WavReader::secondsFromTo(0, kShortSeconds - 1));
    }

    // A custom file plays beside the state machine; the flag shows it until it is stopped or ends.
    void playsACustomFile()
    {
        QVERIFY(answer("playMediaFile", {mShort}));
        QTRY_COMPARE_WITH_TIMEOUT(mServer.value("MEDIA2_playingCustomMedia"), (QVariantList{true, true}), kWaitMs);
        QVERIFY(answer("stopMediaFile"));
        QTRY_COMPARE_WITH_TIMEOUT(mServer.value("MEDIA2_playingCustomMedia"), (QVariantList{true, false}), kWaitMs);
        QVERIFY(answer("playMediaFile", {mShort}));
        QTRY_COMPARE_WITH_TIMEOUT(mServer.value("MEDIA2_playingCustomMedia"), (QVariantList{true, true}), kWaitMs);
        QTRY_COMPARE_WITH_TIMEOUT(mServer.value("MEDIA2_playingCustomMedia"), (QVariantList{true, false}), kWaitMs);
        QCOMPARE(secondsHeard(), WavReader::secondsFromTo(0, kShortSeconds - 1));
    }

    // A station through the FIFO: its titles, one after another, and its bit rate reach the client.
    void playsLiveRadioWithItsTitles()
    {
        QVERIFY(load(item("/radio", "", {{"live-stream", true}})));
        QVERIFY(answer("play", {0}));
        QVERIFY(mServer.waitForState("Playing"));
        QStringList titles;
        const QDeadlineTimer deadline(kWaitMs);
        while (titles.size() < 3 && !deadline.hasExpired()) {
            const QString title = mServer.value("MEDIA2_nowPlayingTitle").value(1).toString();
            if (!title.isEmpty() && !titles.contains(title))
                titles << title;
            QTest::qWait(50);
        }
        titles.sort();
        QCOMPARE(titles, (QStringList{"One", "Three", "Two"}));
        QVERIFY(mServer.value("MEDIA2_streamBitRate").value(1).toInt() > 0);
        QVERIFY(answer("stop"));
        QVERIFY(mServer.waitForState("NoMedia"));
    }

    // A fetch that fails and a file that is no audio each end in their published state, the error
    // chosen from the engine's (which failure gives which engine error is the caching wrapper's
    // concern); the next load plays.
    void failuresEndInTheirState_data()
    {
        QTest::addColumn<int>("status");
        QTest::addColumn<bool>("noise");   // the body replaced by the right length of bytes no decoder takes for audio
        QTest::addColumn<QString>("pair");
        QTest::newRow("forbidden") << 403 << false << "MediaFetchError, ForbiddenFetchError";
        QTest::newRow("undecodable file") << 200 << true << "PlaybackError, RecoverablePlaybackError";
    }

    void failuresEndInTheirState()
    {
        QFETCH(int, status);
        QFETCH(bool, noise);
        QFETCH(QString, pair);
        TestHttpResource failing;
        failing.status = status;
        failing.body = fileContents(mShort);
        if (noise) {
            QRandomGenerator random(7);
            for (char& byte : failing.body)
                byte = char(random.bounded(256));
        }
        const QString path = QStringLiteral("/failing-%1").arg(status);
        mMedia.setResource(path, failing);
        QVERIFY(load(item(path, path)));
        QVERIFY(mServer.waitForState(pair.section(',', 0, 0)));
        QCOMPARE(mServer.publishedPair(), pair);
        QVERIFY(load(item("/short.mp3", "")));
        QVERIFY(answer("play", {0}));
        QVERIFY(mServer.waitForState("Playing"));
    }

    // Requests in random order (seeded, each waiting for its answer as clients do) for a minute:
    // the server keeps answering, a seek is the only request that may go unanswered, and no
    // assertion fires.
    void survivesAHammeringClient()
    {
        QRandomGenerator random(20261123);
        const QStringList methods{"loadMedia", "play", "pause", "seek", "stop"};
        const QDeadlineTimer end(60000);
        int requests = 0;
        while (!end.hasExpired()) {
            const QString method = methods.at(random.bounded(methods.size()));
            QVariantList args;
            if (method == "loadMedia")
                args = {item(random.bounded(2) ? "/long.mp3" : "/short.mp3", random.bounded(2) ? "hammer" : ""), QString()};
            else if (method == "play" || method == "seek")
                args = {random.bounded(kLongSeconds * 1000)};
            const QDBusMessage reply = mServer.request(method, args, 3000);
            const bool answered = reply.type() == QDBusMessage::ReplyMessage;
            QVERIFY2(answered || (method == "seek" && reply.errorName() == kNoReply),
                     qPrintable(QStringLiteral("%1 after %2 requests: %3").arg(method).arg(requests).arg(reply.errorName())));
            ++requests;
            QTest::qWait(random.bounded(200));
        }
        QVERIFY(answer("stop"));
        QVERIFY(mServer.waitForState("NoMedia"));
        QVERIFY(mServer.isRunning());
        QCOMPARE(mServer.logLines().filter("ASSERT failed").join('\n'), QString());
        qInfo("%d requests", requests);
    }

    // A service manager's stop while playing: playback stops, the process exits 0.
    void exitsCleanlyOnSigtermWhilePlaying()
    {
        QVERIFY(load(item("/long.mp3", "")));
        QVERIFY(answer("play", {0}));
        QVERIFY(mServer.waitForState("Playing"));
        const int mark = mServer.logLineCount();
        QVERIFY(mServer.terminate());
        QVERIFY(mServer.logHas("internalStop(): stopping", mark));
    }

private:
    QString item(const QString& path, const QString& key, const QVariantMap& extra = {}, bool https = false) const
    {
        QVariantMap fields = extra;
        fields.insert("url", (https ? mTlsMedia : mMedia).url(path).toString());
        fields.insert("cachekey", key);
        return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(fields)).toJson(QJsonDocument::Compact));
    }

    bool answer(const QString& method, const QVariantList& args = {})
    {
        const QDBusMessage reply = mServer.request(method, args);
        return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
    }

    bool load(const QString& current, const QString& onDeck = QString())
    {
        return answer("loadMedia", {current, onDeck});
    }

    QList<int> secondsHeard() const
    {
        return WavReader::steppedSecondsIn(mWav);
    }

    TestHttpServer mMedia;
    SelfSignedCertificate mCertificate{QStringLiteral("127.0.0.1")};
    TestHttpServer mTlsMedia;   // https with mCertificate, which the server was never told to trust
    ServerProcess mServer;
    QString mShort;
    QString mLong;
    QString mWav;
};

QTEST_GUILESS_MAIN(TestServerEndToEnd)
#include "tst_server_end_to_end.moc"
