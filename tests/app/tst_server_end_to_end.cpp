// The real cabin-media-server on a private bus, driven over D-Bus as the display drives it, with
// media from a loopback server in this process and its audio written to a WAV file in real time:
// what a client asks is what it hears, and the published state always tells the truth.

#include "tests/support/ServerProcess.h"
#include "tests/support/SteppedTone.h"
#include "tests/support/TestHttpServer.h"
#include "tests/support/WavReader.h"

#include <QDeadlineTimer>
#include <QJsonDocument>
#include <QJsonObject>
#include <QRandomGenerator>
#include <QRegularExpression>
#include <QSqlDatabase>
#include <QSqlError>
#include <QSqlQuery>
#include <QtTest>

namespace {

// Generous: the suite also runs under the sanitizers with other suites beside it.
const int kWaitMs = 60000;
const int kShortSeconds = 4;
const int kLongSeconds = 16;
const QString kNoReply = QStringLiteral("org.freedesktop.DBus.Error.NoReply");

QByteArray contentsOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The published state each machine state shows, by the names the trace log uses.
QString publishedStateOf(const QString& machineState)
{
    static const QHash<QString, QString> published{
        {"NoMediaState", "NoMedia"}, {"LoadingState", "Loading"}, {"LoadedState", "Loaded"},
        {"DoPlayState", "TryingToPlay"}, {"DoPauseState", "TryingToPause"}, {"DoPlayingSeekState", "Seeking"},
        {"DoPausedSeekState", "Seeking"}, {"PlayingState", "Playing"}, {"PausedState", "Paused"},
        {"BufferingState", "Buffering"}, {"BufferedState", "Buffering"}, {"StoppingState", "Stopping"},
        {"PlaybackCompleteState", "PlaybackComplete"}, {"PlaybackErrorState", "PlaybackError"},
        {"MediaFetchErrorState", "MediaFetchError"}};
    return published.value(machineState, QStringLiteral("?") + machineState);
}

// Where the published state disagrees with the machine in the log: after each transition, the
// pair published (now or earlier) must show the state entered. Empty when they always agree.
QString disagreement(const QStringList& log)
{
    static const QRegularExpression transition(QStringLiteral("Transition (?:\\S+ -> |to initial state )(\\S+) because"));
    static const QRegularExpression change(QStringLiteral("MEDIA2_serverState changed: (\\w+),"));
    QString published, expected, at;
    for (const QString& line : log) {
        const QRegularExpressionMatch entered = transition.match(line);
        if (entered.hasMatch()) {
            if (!expected.isEmpty() && published != expected)
                return at + QStringLiteral(" but published ") + published;
            expected = publishedStateOf(entered.captured(1));
            at = line;
        }
        const QRegularExpressionMatch changed = change.match(line);
        if (changed.hasMatch())
            published = changed.captured(1);
    }
    return expected.isEmpty() || published == expected ? QString() : at + QStringLiteral(" but published ") + published;
}

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
    void initTestCase();
    void playsEachSourceWhole_data();
    void playsEachSourceWhole();
    void answersRequestsWhileLoading_data();
    void answersRequestsWhileLoading();
    void answersControlRequests();
    void loadWhilePlayingStopsFirst();
    void replaysFromTheCacheAndPreloadsTheNextItem();
    void playsACustomFile();
    void playsLiveRadioWithItsTitles();
    void failuresEndInTheirState_data();
    void failuresEndInTheirState();
    void survivesAHammeringClient();
    void exitsCleanlyOnSigtermWhilePlaying();

private:
    QString item(const QString& path, const QString& key, const QVariantMap& extra = {}) const;
    bool load(const QString& current, const QString& onDeck = QString());
    bool waitForState(const QString& state, int since = -1);
    QList<int> secondsHeard() const;
    bool answer(const QString& method, const QVariantList& args = {});
    bool ageCacheEntry(const QString& key, int seconds);

    TestHttpServer mMedia;
    ServerProcess mServer;
    QString mShort;
    QString mLong;
    QString mWav;
};

void TestServerEndToEnd::initTestCase()
{
    QString error;
    mShort = SteppedTone::file(SteppedTone::Format::Mp3, kShortSeconds, &error);
    mLong = SteppedTone::file(SteppedTone::Format::Mp3, kLongSeconds, &error);
    QVERIFY2(!mShort.isEmpty() && !mLong.isEmpty(), qPrintable(error));
    for (const QString& path : QStringList{"/short.mp3", "/a.mp3", "/next.mp3", "/after.mp3"}) {
        TestHttpResource resource;
        resource.body = contentsOf(mShort);
        mMedia.setResource(path, resource);
    }
    TestHttpResource slow;   // two seconds of loading
    slow.body = contentsOf(mShort);
    slow.bytesPerSecond = 32000;
    mMedia.setResource("/slow.mp3", slow);
    TestHttpResource longItem;
    longItem.body = contentsOf(mLong);
    mMedia.setResource("/long.mp3", longItem);
    TestHttpResource radio;
    radio.icy = true;
    radio.body = contentsOf(mLong);
    radio.icyMetaInt = 16000;
    radio.icyTitles = QStringList{"One", "Two", "Three"};
    radio.icyTitleSeconds = 1;
    mMedia.setResource("/radio", radio);
    QVERIFY(mMedia.start());
    mWav = mServer.home() + QStringLiteral("/out.wav");
    QVERIFY(mServer.start({"gstreamer/audio_sink=audioconvert ! audioresample ! audio/x-raw,format=S16LE,channels=1 ! wavenc ! "
                           "filesink location=" + mWav + " sync=true",
                           "media_buffer/allow_fifo=true", "media_buffer/download_retries=1", "media_buffer/download_timeout=1000",
                           "mediaserver/stream_cache_debug_log=true", "gstreamer/progress_poll_interval=50"}));
}

QString TestServerEndToEnd::item(const QString& path, const QString& key, const QVariantMap& extra) const
{
    QVariantMap fields = extra;
    // A full URL or a file on disk as it stands; otherwise a path on the loopback media server.
    const bool asItStands = path.startsWith(QLatin1String("http")) || QFileInfo::exists(path);
    fields.insert("url", asItStands ? path : mMedia.url(path).toString());
    fields.insert("cachekey", key);
    return QString::fromUtf8(QJsonDocument(QJsonObject::fromVariantMap(fields)).toJson(QJsonDocument::Compact));
}

bool TestServerEndToEnd::answer(const QString& method, const QVariantList& args)
{
    const QDBusMessage reply = mServer.request(method, args);
    return reply.type() == QDBusMessage::ReplyMessage && reply.arguments().value(0).toBool();
}

bool TestServerEndToEnd::load(const QString& current, const QString& onDeck)
{
    return answer("loadMedia", {current, onDeck});
}

// The state is published now or, with `since` a log line number, was published since then.
bool TestServerEndToEnd::waitForState(const QString& state, int since)
{
    const auto reached = [&] {
        const QStringList pairs = since < 0 ? QStringList{mServer.publishedPair()} : mServer.pairsSince(since);
        return std::any_of(pairs.begin(), pairs.end(), [&](const QString& pair) { return pair.startsWith(state + QLatin1Char(',')); });
    };
    const QDeadlineTimer deadline(kWaitMs);
    while (!reached() && !deadline.hasExpired())
        QTest::qWait(20);
    if (reached())
        return true;
    // The server's own account of the wait, for a failure seen only once in a while.
    const QStringList log = mServer.logLines();
    qWarning("waited for %s, published: %s; the server's last log lines:\n%s", qPrintable(state),
             qPrintable(mServer.publishedPair()), qPrintable(log.mid(qMax(0, int(log.size()) - 40)).join(QLatin1Char('\n'))));
    return false;
}

QList<int> TestServerEndToEnd::secondsHeard() const
{
    return WavReader::steppedSecondsIn(mWav);
}

// Each source plays from where it was asked to start to its end, heard, the states published
// in order; a download's progress ends at 1.0 with every byte counted.
void TestServerEndToEnd::playsEachSourceWhole_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("key");
    QTest::addColumn<qint64>("startPosition");   // in the item
    QTest::addColumn<int>("playMs");             // the play request's position
    QTest::addColumn<int>("seconds");
    QTest::addColumn<int>("firstSecond");
    QTest::newRow("buffered, with a cache key") << "/a.mp3" << "whole-a" << qint64(0) << 0 << kShortSeconds << 0;
    QTest::newRow("the URL itself, no cache key") << "/short.mp3" << "" << qint64(0) << 0 << kShortSeconds << 0;
    QTest::newRow("a local file") << "<local>" << "" << qint64(0) << 0 << kShortSeconds << 0;
    QTest::newRow("the item starts at 12 s") << "/long.mp3" << "start-item" << qint64(12000) << 0 << kLongSeconds << 12;
    QTest::newRow("played from 12 s") << "/long.mp3" << "start-play" << qint64(0) << 12000 << kLongSeconds << 12;
}

void TestServerEndToEnd::playsEachSourceWhole()
{
    QFETCH(QString, path);
    QFETCH(QString, key);
    QFETCH(qint64, startPosition);
    QFETCH(int, playMs);
    QFETCH(int, seconds);
    QFETCH(int, firstSecond);
    const int mark = mServer.logLineCount();
    QVariantMap extra{{"should_cache", !key.isEmpty()}, {"startposition", startPosition}};
    QVERIFY(load(item(path == "<local>" ? mShort : path, key, extra)));
    if (startPosition > 0)
        QCOMPARE(mServer.value("MEDIA2_elapsedTime"), (QVariantList{true, int(startPosition)}));
    QVERIFY(answer("play", {playMs}));
    QVERIFY(waitForState("PlaybackComplete", mark));
    QCOMPARE(secondsHeard(), WavReader::secondsFromTo(firstSecond, seconds - 1));
    QVERIFY2(inOrder(mServer.pairsSince(mark), {"Loading, NoError", "Loaded, NoError", "TryingToPlay, NoError", "Playing, NoError",
                                                "PlaybackComplete, NoError"}),
             qPrintable(mServer.pairsSince(mark).join(" | ")));
    if (!key.isEmpty()) {
        const quint64 size = quint64(QFileInfo(path == "/a.mp3" ? mShort : mLong).size());
        QCOMPARE(mServer.value("MEDIA2_bufferProgress"), (QVariantList{true, 1.0}));
        QCOMPARE(mServer.value("MEDIA2_downloadedBytes"), (QVariantList{true, size}));
        QCOMPARE(mServer.value("MEDIA2_totalBytes"), (QVariantList{true, size}));
    }
}

// Requests that arrive while the item is still downloading its first part: a play is done once
// the item is loaded, and a pause after it cancels it.
void TestServerEndToEnd::answersRequestsWhileLoading_data()
{
    QTest::addColumn<QStringList>("requests");
    QTest::addColumn<QString>("line");
    QTest::addColumn<bool>("heard");
    QTest::newRow("play") << QStringList{"play"} << "play(): held until the item is loaded" << true;
    QTest::newRow("play, then pause") << QStringList{"play", "pause"} << "pause(): nothing to pause while the item loads" << false;
}

void TestServerEndToEnd::answersRequestsWhileLoading()
{
    QFETCH(QStringList, requests);
    QFETCH(QString, line);
    QFETCH(bool, heard);
    const int mark = mServer.logLineCount();
    QVERIFY(load(item("/slow.mp3", QStringLiteral("loading-%1").arg(requests.size()))));
    for (const QString& request : requests)
        QVERIFY(answer(request, request == "play" ? QVariantList{0} : QVariantList{}));
    QTRY_VERIFY_WITH_TIMEOUT(mServer.logHas(line, mark), kWaitMs);
    QVERIFY(waitForState("Loaded", mark));
    if (heard) {
        QVERIFY(waitForState("PlaybackComplete", mark));
        QCOMPARE(secondsHeard(), WavReader::secondsFromTo(0, kShortSeconds - 1));
        return;
    }
    QVERIFY(answer("stop"));
    QVERIFY(waitForState("NoMedia", mark));
    QVERIFY2(!mServer.pairsSince(mark).contains("TryingToPlay, NoError"), qPrintable(mServer.pairsSince(mark).join(" | ")));
}

// Each request in turn on a 16 s item: its answer, the state it leaves, and the line that shows
// a request in the state it asks for is answered without touching the engine.
void TestServerEndToEnd::answersControlRequests()
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
    QVERIFY(waitForState("Loaded"));
    for (const Step& step : steps) {
        const int mark = mServer.logLineCount();
        const QDBusMessage reply = mServer.request(step.method, step.args, 3000);
        const QString got = reply.type() == QDBusMessage::ReplyMessage ? reply.arguments().value(0).toString() : reply.errorName();
        const QString what = QStringLiteral("%1(%2)").arg(step.method, step.args.value(0).toString());
        QVERIFY2(got == (qstrcmp(step.reply, "none") == 0 ? kNoReply : QString::fromLatin1(step.reply)), qPrintable(what + ": " + got));
        if (qstrcmp(step.method, "seek") == 0 && got == "true")   // at once, before the engine reports a position
            QCOMPARE(mServer.value("MEDIA2_elapsedTime"), (QVariantList{true, step.args.value(0)}));
        QVERIFY2(waitForState(step.state), qPrintable(what));
        // The answer can come before the log line reaches the pipe.
        QTRY_VERIFY2_WITH_TIMEOUT(!*step.line || mServer.logHas(step.line, mark), qPrintable(what + ": no line " + step.line), kWaitMs);
    }
    QCOMPARE(mServer.value("MEDIA2_elapsedTime"), (QVariantList{true, 0}));
}

// A load while playing stops first, answers once, and the new item is what is heard.
void TestServerEndToEnd::loadWhilePlayingStopsFirst()
{
    QVERIFY(load(item("/long.mp3", "before")));
    QVERIFY(waitForState("Loaded"));
    QVERIFY(answer("play", {0}));
    QVERIFY(waitForState("Playing"));
    const int mark = mServer.logLineCount();
    QVERIFY(load(item("/after.mp3", "after")));
    QVERIFY(waitForState("Loaded"));
    QVERIFY2(inOrder(mServer.pairsSince(mark), {"Stopping, NoError", "NoMedia, NoError", "Loading, NoError", "Loaded, NoError"}),
             qPrintable(mServer.pairsSince(mark).join(" | ")));
    QVERIFY(mServer.logHas("onStop(): metadata valid -> loadMedia", mark));
    QVERIFY(answer("play", {0}));
    QVERIFY(waitForState("PlaybackComplete"));
    QCOMPARE(secondsHeard(), WavReader::secondsFromTo(0, kShortSeconds - 1));
}

// The same item again plays from the stream cache, complete at once, and counts as a saved
// download only when it was last used more than 600 s ago; the item announced as next was
// preloaded and plays from the cache too.
void TestServerEndToEnd::replaysFromTheCacheAndPreloadsTheNextItem()
{
    const QVariantMap cached{{"should_cache", true}};
    QVERIFY(load(item("/a.mp3", "cache-a", cached), item("/next.mp3", "cache-b", cached)));
    QVERIFY(answer("play", {0}));
    QVERIFY(waitForState("PlaybackComplete"));
    QTRY_VERIFY_WITH_TIMEOUT(mServer.logHas("stored cache-b"), kWaitMs);
    struct Replay {
        const char* key;
        const char* path;
        int idleSeconds;   // last use moved this far back first (0: as it is)
        bool counted;
    };
    for (const Replay& replay : {Replay{"cache-a", "/a.mp3", 0, false}, Replay{"cache-b", "/next.mp3", 0, false},
                                 Replay{"cache-a", "/a.mp3", 601, true}}) {
        if (replay.idleSeconds > 0)
            QVERIFY(ageCacheEntry(replay.key, replay.idleSeconds));
        const int mark = mServer.logLineCount();
        QVERIFY(load(item(replay.path, replay.key, cached)));
        QTRY_VERIFY_WITH_TIMEOUT(mServer.logHas("Cached in StreamCache, playing from", mark), kWaitMs);
        QVERIFY(answer("play", {0}));
        QVERIFY(waitForState("PlaybackComplete", mark));
        QCOMPARE(mServer.value("MEDIA2_bufferProgress"), (QVariantList{true, 1.0}));
        QCOMPARE(mServer.value("MEDIA2_streamCached"), (QVariantList{true, replay.counted}));
        QCOMPARE(secondsHeard(), WavReader::secondsFromTo(0, kShortSeconds - 1));
    }
}

// Moves the entry's last use `seconds` into the past in the server's cache database (SQLite in
// WAL mode takes a second writer).
bool TestServerEndToEnd::ageCacheEntry(const QString& key, int seconds)
{
    bool updated = false;
    {
        QSqlDatabase db = QSqlDatabase::addDatabase(QStringLiteral("QSQLITE"), QStringLiteral("age"));
        db.setDatabaseName(mServer.home() + QStringLiteral("/cache/CabinMediaServer2/stream_cache/stream_cache.db"));
        QSqlQuery query(db);
        updated = db.open() && query.prepare(QStringLiteral("UPDATE streams SET last_access = last_access - ? WHERE cachekey = ?"));
        query.addBindValue(seconds);
        query.addBindValue(key);
        updated = updated && query.exec() && query.numRowsAffected() == 1;
        if (!updated)
            qWarning("%s", qPrintable(query.lastError().text() + db.lastError().text()));
    }
    QSqlDatabase::removeDatabase(QStringLiteral("age"));
    return updated;
}

// A custom file plays beside the state machine; the flag shows it until it is stopped or ends.
void TestServerEndToEnd::playsACustomFile()
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
void TestServerEndToEnd::playsLiveRadioWithItsTitles()
{
    QVERIFY(load(item("/radio", "", {{"live-stream", true}})));
    QVERIFY(answer("play", {0}));
    QVERIFY(waitForState("Playing"));
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
    QVERIFY(waitForState("NoMedia"));
}

// Each way a fetch fails, and a file that is no audio, ends in its published state and error;
// the next load plays.
void TestServerEndToEnd::failuresEndInTheirState_data()
{
    QTest::addColumn<int>("status");
    QTest::addColumn<qint64>("stallAfter");   // -2: the body replaced by noise
    QTest::addColumn<bool>("unreachable");
    QTest::addColumn<QString>("pair");
    QTest::newRow("not found") << 404 << qint64(-1) << false << "MediaFetchError, RecoverableFetchError";
    QTest::newRow("server gone, retries used up") << 200 << qint64(-1) << true << "MediaFetchError, RecoverableFetchError";
    QTest::newRow("forbidden") << 403 << qint64(-1) << false << "MediaFetchError, ForbiddenFetchError";
    QTest::newRow("server silent") << 200 << qint64(0) << false << "MediaFetchError, TimeoutFetchError";
    QTest::newRow("undecodable file") << 200 << qint64(-2) << false << "PlaybackError, RecoverablePlaybackError";
}

void TestServerEndToEnd::failuresEndInTheirState()
{
    QFETCH(int, status);
    QFETCH(qint64, stallAfter);
    QFETCH(bool, unreachable);
    QFETCH(QString, pair);
    TestHttpResource failing;
    failing.status = status;
    failing.body = contentsOf(mShort);
    if (stallAfter == -2) {   // the right length of bytes no decoder takes for audio
        QRandomGenerator noise(7);
        for (char& byte : failing.body)
            byte = char(noise.bounded(256));
        stallAfter = -1;
    }
    failing.stallAfter = stallAfter;
    const QString path = QStringLiteral("/failing-%1-%2").arg(status).arg(stallAfter);
    mMedia.setResource(path, failing);
    QVERIFY(load(item(unreachable ? QStringLiteral("http://127.0.0.1:1/gone.mp3") : path, path)));
    QVERIFY(waitForState(pair.section(',', 0, 0)));
    QCOMPARE(mServer.publishedPair(), pair);
    QVERIFY(load(item("/short.mp3", "")));
    QVERIFY(answer("play", {0}));
    QVERIFY(waitForState("Playing"));
}

// Requests in random order (seeded, each waiting for its answer as clients do) for a minute:
// the server keeps answering, a seek is the only request that may go unanswered, no assertion
// fires, and the published state agreed with the machine all along.
void TestServerEndToEnd::survivesAHammeringClient()
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
    QVERIFY(waitForState("NoMedia"));
    QVERIFY(mServer.isRunning());
    const QStringList log = mServer.logLines();
    QCOMPARE(log.filter("ASSERT failed").join('\n'), QString());
    QCOMPARE(disagreement(log), QString());
    qInfo("%d requests", requests);
}

// A service manager's stop while playing: playback stops, the process exits 0.
void TestServerEndToEnd::exitsCleanlyOnSigtermWhilePlaying()
{
    QVERIFY(load(item("/long.mp3", "")));
    QVERIFY(answer("play", {0}));
    QVERIFY(waitForState("Playing"));
    const int mark = mServer.logLineCount();
    QVERIFY(mServer.terminate());
    QVERIFY(mServer.logHas("internalStop(): stopping", mark));
}

QTEST_GUILESS_MAIN(TestServerEndToEnd)
#include "tst_server_end_to_end.moc"
