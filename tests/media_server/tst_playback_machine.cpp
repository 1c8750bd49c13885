// The playback state machine: which events each state takes and where they lead, the refusal
// of every other event, the trace lines, the owner's notifications, and the rules that derive
// the published state pair from the machine.

#include "media_server/MediaServerMachineOwner.h"
#include "media_server/MediaServerMachineSM.h"
#include "media_server/MediaServerMachineState.h"
#include "media_server/ServerStateRules.h"
#include "tests/support/LogCapture.h"

#include <QRegularExpression>
#include <QtTest>

using namespace MediaV2;

namespace {

const char* const kNames[] = {"NoMediaState", "LoadingState", "LoadedState", "DoPlayState", "DoPauseState",
                              "DoPlayingSeekState", "DoPausedSeekState", "PlayingState", "PausedState",
                              "BufferingState", "BufferedState", "StoppingState", "PlaybackCompleteState",
                              "PlaybackErrorState", "MediaFetchErrorState"};

using EventCall = bool (MediaServerMachineState::*)();
const EventCall kEvents[] = {
#define CABIN_EVENT_POINTER(name) &MediaServerMachineState::name,
    MEDIA_SERVER_MACHINE_EVENTS(CABIN_EVENT_POINTER)
#undef CABIN_EVENT_POINTER
};
const int kEventCount = int(sizeof(kEvents) / sizeof(kEvents[0]));

int eventIndex(const char* name)
{
    for (int i = 0; i < kEventCount; ++i)
        if (qstrcmp(MediaServerMachineState::eventName(MachineEvent(i)), name) == 0)
            return i;
    return -1;
}

// The transitions the server player relies on: state, event, next state, reason.
struct Row
{
    int state;
    const char* event;
    int next;
    const char* reason;
};
using S = MediaServerMachineSM;
const Row kRows[] = {
    {S::NoMedia, "load", S::Loading, "load"},
    {S::Loading, "loadSucceeded", S::Loaded, "load succeeded"},
    {S::Loading, "loadFailed", S::MediaFetchError, "load failed"},
    {S::Loading, "error", S::MediaFetchError, "encountered error while loading"},
    {S::Loading, "stop", S::Stopping, "stop"},
    {S::Loaded, "play", S::DoPlay, "play"},
    {S::Loaded, "pause", S::DoPause, "pause"},
    {S::Loaded, "buffer", S::Buffering, "started buffering"},
    {S::Loaded, "error", S::PlaybackError, "player reported an error"},
    {S::Loaded, "stop", S::Stopping, "stop"},
    {S::DoPlay, "playSucceeded", S::Playing, "play succeeded"},
    {S::DoPlay, "playFailed", S::PlaybackError, "play failed"},
    {S::DoPlay, "stop", S::Stopping, "stop"},
    {S::DoPause, "pauseSucceeded", S::Paused, "pause succeeded"},
    {S::DoPause, "pauseFailed", S::PlaybackError, "pause failed"},
    {S::DoPause, "stop", S::Stopping, "stop"},
    {S::DoPlayingSeek, "seekSucceeded", S::Playing, "seek succeeded"},
    {S::DoPlayingSeek, "seekFailed", S::PlaybackError, "seek failed"},
    {S::DoPlayingSeek, "stop", S::Stopping, "stop"},
    {S::DoPausedSeek, "seekSucceeded", S::Paused, "seek succeeded"},
    {S::DoPausedSeek, "seekFailed", S::PlaybackError, "seek failed"},
    {S::DoPausedSeek, "stop", S::Stopping, "stop"},
    {S::Playing, "pause", S::DoPause, "pause"},
    {S::Playing, "seek", S::DoPlayingSeek, "seek"},
    {S::Playing, "buffer", S::Buffering, "need to buffer"},
    {S::Playing, "playbackComplete", S::PlaybackComplete, "playback complete"},
    {S::Playing, "error", S::PlaybackError, "player reported an error"},
    {S::Playing, "stop", S::Stopping, "stop"},
    {S::Paused, "play", S::DoPlay, "play"},
    {S::Paused, "seek", S::DoPausedSeek, "seek"},
    {S::Paused, "error", S::PlaybackError, "player reported an error"},
    {S::Paused, "stop", S::Stopping, "stop"},
    {S::Buffering, "bufferingSucceeded", S::Buffered, "buffering succeeded"},
    {S::Buffering, "bufferingFailed", S::MediaFetchError, "buffering failed"},
    {S::Buffering, "error", S::MediaFetchError, "buffering failed"},
    {S::Buffering, "stop", S::Stopping, "stop"},
    {S::Buffered, "play", S::DoPlay, "not playing yet"},
    {S::Buffered, "alreadyPlaying", S::Playing, "already playing"},
    {S::Buffered, "error", S::PlaybackError, "player reported an error"},
    {S::Stopping, "stopSucceeded", S::NoMedia, "stop succeeded"},
    {S::Stopping, "stopFailed", S::NoMedia, "stop failed"},
    {S::PlaybackComplete, "load", S::Loading, "loading new content"},
    {S::PlaybackComplete, "stop", S::Stopping, "stop"},
    {S::PlaybackError, "load", S::Loading, "loading new content"},
    {S::PlaybackError, "stop", S::Stopping, "stop"},
    {S::MediaFetchError, "load", S::Loading, "loading new content"},
    {S::MediaFetchError, "stop", S::Stopping, "stop"},
};

bool listed(int state, int event)
{
    for (const Row& row : kRows)
        if (row.state == state && eventIndex(row.event) == event)
            return true;
    return false;
}

// Records what the machine tells its owner, with the machine's state at that moment.
class OwnerStandIn : public MediaServerMachineOwner
{
public:
    void machineStateChanged() override { calls.append(QStringLiteral("changed ") + current()); }
    void onStop() override { calls.append(QStringLiteral("onStop ") + current()); }
    bool isTrace() const override { return trace; }
    QString current() const { return machine && machine->currentState() ? machine->currentState()->name() : QString(); }

    MediaServerMachineSM* machine = nullptr;
    bool trace = true;
    QStringList calls;
};

struct Fixture
{
    explicit Fixture(bool trace = true)
        : machine(&owner, Qt::DirectConnection)
    {
        owner.machine = &machine;
        owner.trace = trace;
    }
    void putIn(int state)
    {
        machine.goState(machine.state(state), QStringLiteral("test"));
        owner.calls.clear();
    }
    bool send(int event) { return (machine.currentState()->*kEvents[event])(); }

    OwnerStandIn owner;
    MediaServerMachineSM machine;
};

} // namespace

class TestPlaybackMachine : public QObject
{
    Q_OBJECT
private slots:
    void firstTransitionEntersNoMediaAndFinishesTheStop();
    void listedPairMovesWithItsReason_data();
    void listedPairMovesWithItsReason();
    void unlistedPairIsRefusedAndLogged_data();
    void unlistedPairIsRefusedAndLogged();
    void journeysEndWhereTheyMust_data();
    void journeysEndWhereTheyMust();
    void traceOffLogsNothingButMovesTheSame();
    void stateTimerDeliversTimeout();
    void machineStateMapsToPublishedState_data();
    void machineStateMapsToPublishedState();
    void errorIsChosenByStateAndEngine_data();
    void errorIsChosenByStateAndEngine();
};

void TestPlaybackMachine::firstTransitionEntersNoMediaAndFinishesTheStop()
{
    LogCapture log;
    Fixture f;
    QVERIFY(!f.machine.currentState());
    QVERIFY(f.machine.goState(f.machine.state(S::NoMedia), QStringLiteral("initializing")));
    QCOMPARE(log.records().size(), 1);
    QCOMPARE(log.records().first().message, QStringLiteral("Transition to initial state NoMediaState because initializing\n"));
    QCOMPARE(f.owner.calls, (QStringList{"changed NoMediaState", "onStop NoMediaState"}));
}

void TestPlaybackMachine::listedPairMovesWithItsReason_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("event");
    QTest::addColumn<int>("next");
    QTest::addColumn<QString>("reason");
    for (const Row& row : kRows)
        QTest::addRow("%s %s", kNames[row.state], row.event) << row.state << eventIndex(row.event) << row.next << row.reason;
}

void TestPlaybackMachine::listedPairMovesWithItsReason()
{
    QFETCH(int, state);
    QFETCH(int, event);
    QFETCH(int, next);
    QFETCH(QString, reason);
    Fixture f;
    f.putIn(state);
    LogCapture log;
    QVERIFY(f.send(event));
    QCOMPARE(f.machine.currentState()->state_id(), next);
    QCOMPARE(log.records().size(), 1);
    static const QRegularExpression line(QStringLiteral("^Transition (\\w+) -> (\\w+) because (.*) # \\d+\\n$"));
    const QRegularExpressionMatch match = line.match(log.records().first().message);
    QVERIFY2(match.hasMatch(), qPrintable(log.records().first().message));
    QCOMPARE(match.captured(1), QString::fromLatin1(kNames[state]));
    QCOMPARE(match.captured(2), QString::fromLatin1(kNames[next]));
    QCOMPARE(match.captured(3), reason);
    QStringList expected{"changed " + QString::fromLatin1(kNames[next])};
    if (next == S::NoMedia)
        expected.append("onStop " + QString::fromLatin1(kNames[next]));
    QCOMPARE(f.owner.calls, expected);
}

void TestPlaybackMachine::unlistedPairIsRefusedAndLogged_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("event");
    for (int state = 0; state < S::StateCount; ++state)
        for (int event = 0; event < kEventCount; ++event)
            if (!listed(state, event))
                QTest::addRow("%s %s", kNames[state], MediaServerMachineState::eventName(MachineEvent(event))) << state << event;
}

void TestPlaybackMachine::unlistedPairIsRefusedAndLogged()
{
    QFETCH(int, state);
    QFETCH(int, event);
    Fixture f;
    f.putIn(state);
    LogCapture log;
    QVERIFY(!f.send(event));
    QCOMPARE(f.machine.currentState()->state_id(), state);
    QVERIFY(f.owner.calls.isEmpty());
    QCOMPARE(log.records().size(), 1);
    QCOMPARE(log.records().first().message, QStringLiteral("Unhandled %1 in %2\n")
                                                .arg(QLatin1String(MediaServerMachineState::eventName(MachineEvent(event))),
                                                     QLatin1String(kNames[state])));
}

void TestPlaybackMachine::journeysEndWhereTheyMust_data()
{
    QTest::addColumn<QStringList>("events");
    QTest::addColumn<QString>("results");   // one t/f per event: taken or refused
    QTest::addColumn<int>("end");
    QTest::newRow("a new item needs a stop while playing")
        << QStringList{"load", "loadSucceeded", "play", "playSucceeded", "load", "stop", "stopSucceeded", "load"} << "ttttfttt" << int(S::Loading);
    QTest::newRow("stop is refused in NoMedia") << QStringList{"stop"} << "f" << int(S::NoMedia);
    QTest::newRow("stop is refused once buffered")
        << QStringList{"load", "loadSucceeded", "buffer", "bufferingSucceeded", "stop"} << "ttttf" << int(S::Buffered);
    QTest::newRow("buffered and the engine already plays")
        << QStringList{"load", "loadSucceeded", "buffer", "bufferingSucceeded", "alreadyPlaying"} << "ttttt" << int(S::Playing);
    QTest::newRow("error while buffering is a fetch error")
        << QStringList{"load", "loadSucceeded", "buffer", "error"} << "tttt" << int(S::MediaFetchError);
    QTest::newRow("error once buffered is a playback error")
        << QStringList{"load", "loadSucceeded", "buffer", "bufferingSucceeded", "error"} << "ttttt" << int(S::PlaybackError);
    QTest::newRow("error while trying to play is refused")
        << QStringList{"load", "loadSucceeded", "play", "error"} << "tttf" << int(S::DoPlay);
    QTest::newRow("paused seek returns to paused")
        << QStringList{"load", "loadSucceeded", "pause", "pauseSucceeded", "seek", "seekSucceeded"} << "tttttt" << int(S::Paused);
    QTest::newRow("stop failing still ends in NoMedia")
        << QStringList{"load", "stop", "stopFailed"} << "ttt" << int(S::NoMedia);
    QTest::newRow("nothing takes notPlaying or timeout")
        << QStringList{"load", "loadSucceeded", "play", "playSucceeded", "notPlaying", "timeout"} << "ttttff" << int(S::Playing);
    QTest::newRow("a failed fetch can load again")
        << QStringList{"load", "loadFailed", "load"} << "ttt" << int(S::Loading);
}

void TestPlaybackMachine::journeysEndWhereTheyMust()
{
    QFETCH(QStringList, events);
    QFETCH(QString, results);
    QFETCH(int, end);
    Fixture f;
    f.putIn(S::NoMedia);
    QString actual;
    for (const QString& event : events)
        actual += f.send(eventIndex(qPrintable(event))) ? QLatin1Char('t') : QLatin1Char('f');
    QCOMPARE(actual, results);
    QCOMPARE(f.machine.currentState()->state_id(), end);
}

void TestPlaybackMachine::traceOffLogsNothingButMovesTheSame()
{
    LogCapture log;
    Fixture f(false);
    f.machine.goState(f.machine.state(S::NoMedia), QStringLiteral("initializing"));
    QVERIFY(f.send(eventIndex("load")));
    QVERIFY(!f.send(eventIndex("play")));
    QCOMPARE(f.machine.currentState()->state_id(), int(S::Loading));
    QVERIFY(log.records().isEmpty());
    QCOMPARE(f.owner.calls.last(), QStringLiteral("changed LoadingState"));
}

void TestPlaybackMachine::stateTimerDeliversTimeout()
{
    Fixture f;
    f.putIn(S::Playing);
    LogCapture log;
    f.machine.stateTimerExpired();
    QCOMPARE(log.lines(), QStringList{"MediaServerMachineSM(): Unhandled timeout in PlayingState\n"});
    QCOMPARE(f.machine.currentState()->state_id(), int(S::Playing));
}

void TestPlaybackMachine::machineStateMapsToPublishedState_data()
{
    QTest::addColumn<int>("machineState");
    QTest::addColumn<int>("published");
    const MediaServerState expected[] = {NoMedia, Loading, Loaded, TryingToPlay, TryingToPause, Seeking, Seeking, Playing,
                                         Paused, Buffering, Buffering, Stopping, PlaybackComplete, PlaybackError, MediaFetchError};
    for (int id = 0; id < S::StateCount; ++id)
        QTest::addRow("%s", kNames[id]) << id << int(expected[id]);
}

void TestPlaybackMachine::machineStateMapsToPublishedState()
{
    QFETCH(int, machineState);
    QFETCH(int, published);
    LogCapture log;
    QCOMPARE(int(ServerStateRules::machineStateToState(machineState)), published);
    QVERIFY(log.asserts().isEmpty());
    QCOMPARE(int(ServerStateRules::machineStateToState(15)), int(NoMedia));
    QCOMPARE(log.assertMessages(), QStringList{"machineStateToState(): unknown state: 15"});
    QCOMPARE(log.asserts().first().condition, QStringLiteral("false"));
}

void TestPlaybackMachine::errorIsChosenByStateAndEngine_data()
{
    using namespace ServerStateRules;
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("engine");
    QTest::addColumn<int>("error");
    QTest::newRow("playback error is recoverable") << int(PlaybackError) << int(EngineError) << int(RecoverablePlaybackError);
    QTest::newRow("fetch error, engine timed out") << int(MediaFetchError) << int(EngineErrorTimeout) << int(TimeoutFetchError);
    QTest::newRow("fetch error, engine forbidden") << int(MediaFetchError) << int(EngineErrorForbidden) << int(ForbiddenFetchError);
    QTest::newRow("fetch error, engine error") << int(MediaFetchError) << int(EngineError) << int(RecoverableFetchError);
    QTest::newRow("fetch error, engine stopped") << int(MediaFetchError) << int(EngineStopped) << int(RecoverableFetchError);
    QTest::newRow("playing has no error") << int(Playing) << int(EngineErrorForbidden) << int(NoError);
    QTest::newRow("buffering has no error") << int(Buffering) << int(EngineErrorTimeout) << int(NoError);
}

void TestPlaybackMachine::errorIsChosenByStateAndEngine()
{
    QFETCH(int, state);
    QFETCH(int, engine);
    QFETCH(int, error);
    QCOMPARE(int(ServerStateRules::errorForState(MediaServerState(state), ServerStateRules::EngineState(engine))), error);
}

QTEST_GUILESS_MAIN(TestPlaybackMachine)
#include "tst_playback_machine.moc"
