// The playback state machine: which events each state takes and where they lead, the refusal
// of every other event, the trace lines, the owner's notifications; the published error rule
// and the value that carries the published pair.

#include "UI/media_server/MediaServerStateDataValue.h"
#include "media_server/MediaServerMachineOwner.h"
#include "media_server/MediaServerMachineSM.h"
#include "media_server/MediaServerMachineState.h"
#include "media_server/ServerStateRules.h"
#include "tests/support/LogCapture.h"

#include <QRegularExpression>
#include <QtTest>

using namespace MediaV2;

namespace {

QString uniqueName()
{
    static int counter = 0;
    return QStringLiteral("TEST_serverState_%1").arg(++counter);
}

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
    void listedPairMovesWithItsReason_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<int>("event");
        QTest::addColumn<int>("next");
        QTest::addColumn<QString>("reason");
        for (const Row& row : kRows)
            QTest::addRow("%s %s", kNames[row.state], row.event) << row.state << eventIndex(row.event) << row.next << row.reason;
    }

    void listedPairMovesWithItsReason()
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

    void unlistedPairIsRefusedAndLogged_data()
    {
        QTest::addColumn<int>("state");
        QTest::addColumn<int>("event");
        for (int state = 0; state < S::StateCount; ++state)
            for (int event = 0; event < kEventCount; ++event)
                if (!listed(state, event))
                    QTest::addRow("%s %s", kNames[state], MediaServerMachineState::eventName(MachineEvent(event))) << state << event;
    }

    void unlistedPairIsRefusedAndLogged()
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

    void traceOffLogsNothingButMovesTheSame()
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

    void errorIsChosenByStateAndEngine_data()
    {
        using namespace ServerStateRules;
        QTest::addColumn<int>("state");
        QTest::addColumn<int>("engine");
        QTest::addColumn<int>("error");
        QTest::newRow("playback error is recoverable") << int(PlaybackError) << int(EngineError) << int(RecoverablePlaybackError);
        QTest::newRow("fetch error, engine timed out") << int(MediaFetchError) << int(EngineErrorTimeout) << int(TimeoutFetchError);
        QTest::newRow("fetch error, engine forbidden") << int(MediaFetchError) << int(EngineErrorForbidden) << int(ForbiddenFetchError);
        QTest::newRow("fetch error, engine error") << int(MediaFetchError) << int(EngineError) << int(RecoverableFetchError);
        QTest::newRow("playing has no error") << int(Playing) << int(EngineErrorForbidden) << int(NoError);
    }

    void errorIsChosenByStateAndEngine()
    {
        QFETCH(int, state);
        QFETCH(int, engine);
        QFETCH(int, error);
        QCOMPARE(int(ServerStateRules::errorForState(MediaServerState(state), ServerStateRules::EngineState(engine))), error);
    }

    void pairFromVariant_data()
    {
        QTest::addColumn<QVariant>("input");
        QTest::addColumn<QList<int>>("expected");   // state, error; empty: refused, Playing/RecoverableFetchError kept

        QTest::newRow("one element sets the state and clears the error") << QVariant(QVariantList{7}) << QList<int>{Paused, NoError};
        QTest::newRow("two elements set both") << QVariant(QVariantList{12, 6}) << QList<int>{MediaFetchError, ForbiddenFetchError};
        QTest::newRow("a list of number texts is read as numbers") << QVariant(QStringList{"7", "0"}) << QList<int>{Paused, NoError};
        QTest::newRow("text is refused and the pair kept") << QVariant(QString("abc")) << QList<int>();
    }

    void pairFromVariant()
    {
        QFETCH(QVariant, input);
        QFETCH(QList<int>, expected);
        MediaServerStateDataValueData data{Playing, RecoverableFetchError};
        QCOMPARE(data.setFromVariant(input), !expected.isEmpty());
        QCOMPARE((QList<int>{data.state, data.error}), (expected.isEmpty() ? QList<int>{Playing, RecoverableFetchError} : expected));
    }

    void setAndChangeSignals_data()
    {
        QTest::addColumn<QList<int>>("pairs");   // state, error, state, error, ... set in order
        QTest::addColumn<int>("expectedChanges");
        QTest::addColumn<QString>("expectedText");

        QTest::newRow("the default pair is a value once set") << QList<int>{NoMedia, NoError} << 1 << "NoMedia, NoError";
        QTest::newRow("same pair again is no change") << QList<int>{Playing, NoError, Playing, NoError} << 1 << "Playing, NoError";
        QTest::newRow("a different state is one more change")
            << QList<int>{Playing, NoError, Buffering, NoError} << 2 << "Buffering, NoError";
        QTest::newRow("a different error alone is one more change")
            << QList<int>{Playing, NoError, Playing, RecoverablePlaybackError} << 2 << "Playing, RecoverablePlaybackError";
    }

    void setAndChangeSignals()
    {
        QFETCH(QList<int>, pairs);
        QFETCH(int, expectedChanges);
        QFETCH(QString, expectedText);
        MediaServerStateDataValue value(uniqueName());
        MediaServerState state = Seeking;
        MediaServerError error = TimeoutFetchError;
        QVERIFY(!value.retrieveState(&state, &error));   // no pair before the first set, and nothing written
        QVERIFY(state == Seeking && error == TimeoutFetchError);
        QSignalSpy valueSpy(&value, &DataValue::valueChanged);
        QSignalSpy stateSpy(&value, &MediaServerStateDataValue::mediaServerStateChanged);
        for (int i = 0; i < pairs.size(); i += 2)
            value.setState(MediaServerState(pairs[i]), MediaServerError(pairs[i + 1]));
        QCOMPARE(valueSpy.count(), expectedChanges);
        QCOMPARE(stateSpy.count(), expectedChanges);
        QVERIFY(value.retrieveState(&state, &error));
        QCOMPARE((QList<int>{state, error}), pairs.mid(pairs.size() - 2));
        QCOMPARE(value.toString(), expectedText);
    }
};

QTEST_GUILESS_MAIN(TestPlaybackMachine)
#include "tst_playback_machine.moc"
