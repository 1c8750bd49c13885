#include "UI/media_server/MediaServerState.h"
#include "UI/media_server/MediaServerStateDataValue.h"
#include "UI/media_server/MediaServerStateDataValueData.h"
#include "media_server/MediaServerDataValues.h"
#include "platform/datavalue/DataValueManager.h"
#include "tests/support/LogCapture.h"
#include "vehicle/VehicleDataValues.h"

#include <QSignalSpy>
#include <QTest>

using namespace MediaV2;

namespace {

QString uniqueName()
{
    static int counter = 0;
    return QStringLiteral("TEST_serverState_%1").arg(++counter);
}

MediaServerStateDataValueData pair(int state, int error)
{
    MediaServerStateDataValueData data;
    data.state = MediaServerState(state);
    data.error = MediaServerError(error);
    return data;
}

} // namespace

class TestMediaServerState : public QObject
{
    Q_OBJECT

private slots:
    // Reads the process's values before any test writes them.
    void initialValues_data();
    void initialValues();
    void stateNames_data();
    void stateNames();
    void errorNames_data();
    void errorNames();
    void unknownNumbers_data();
    void unknownNumbers();
    void pairText_data();
    void pairText();
    void pairVariant_data();
    void pairVariant();
    void pairFromVariant_data();
    void pairFromVariant();
    void retrieveBeforeFirstSet();
    void setThenRetrieve_data();
    void setThenRetrieve();
    void changeSignals_data();
    void changeSignals();
};

void TestMediaServerState::initialValues_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<bool>("expectedValid");
    QTest::addColumn<QVariant>("expectedVariant");
    QTest::addColumn<bool>("expectedExternallyWritable");

    const QVariant none;
    const QVariantMap nothingCounted{{"linkState", -1},
                                     {"received", QVariant::fromValue<quint64>(0)},
                                     {"sent", QVariant::fromValue<quint64>(0)},
                                     {"categories", QVariantMap()}};
    QTest::newRow("server state has no value yet") << "MEDIA2_serverState" << false << none << false;
    QTest::newRow("title has no value yet") << "MEDIA2_nowPlayingTitle" << false << none << false;
    QTest::newRow("bit rate has no value yet") << "MEDIA2_streamBitRate" << false << none << false;
    QTest::newRow("total bytes have no value yet") << "MEDIA2_totalBytes" << false << none << false;
    QTest::newRow("downloaded bytes have no value yet") << "MEDIA2_downloadedBytes" << false << none << false;
    QTest::newRow("elapsed time has no value yet") << "MEDIA2_elapsedTime" << false << none << false;
    QTest::newRow("buffer progress reads 0") << "MEDIA2_bufferProgress" << true << QVariant(0.0) << false;
    QTest::newRow("stream cached reads false") << "MEDIA2_streamCached" << true << QVariant(false) << false;
    QTest::newRow("custom media reads false") << "MEDIA2_playingCustomMedia" << true << QVariant(false) << false;
    QTest::newRow("network statistics have nothing counted")
        << "MEDIA2_connNetStats" << true << QVariant(nothingCounted) << false;
    QTest::newRow("internet use is allowed and set from outside") << "GUI_canUseInternet" << true << QVariant(true) << true;
    QTest::newRow("link state has no value yet and is set from outside") << "LINK_linkState" << false << none << true;
}

void TestMediaServerState::initialValues()
{
    QFETCH(QString, name);
    QFETCH(bool, expectedValid);
    QFETCH(QVariant, expectedVariant);
    QFETCH(bool, expectedExternallyWritable);

    DataValue* value = DataValueManager::instance()->find(name);
    QVERIFY2(value, qPrintable(name));
    QCOMPARE(value->isValid(), expectedValid);
    QCOMPARE(value->variant().userType(), expectedVariant.userType());
    QCOMPARE(value->variant(), expectedVariant);
    QCOMPARE(value->isExternallyWritable(), expectedExternallyWritable);
}

void TestMediaServerState::stateNames_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<QString>("expectedName");
    const QStringList names{"NoMedia", "Loading", "Loaded", "TryingToPlay", "TryingToPause", "Seeking", "Playing",
                            "Paused", "Buffering", "Stopping", "PlaybackComplete", "PlaybackError", "MediaFetchError"};
    for (int state = 0; state < names.size(); ++state)
        QTest::addRow("state %d is %s", state, qPrintable(names[state])) << state << names[state];
}

void TestMediaServerState::stateNames()
{
    QFETCH(int, state);
    QFETCH(QString, expectedName);
    LogCapture capture;
    QCOMPARE(MediaServerUtils::nameForState(MediaServerState(state)), expectedName);
    QCOMPARE(capture.asserts().size(), 0);
}

void TestMediaServerState::errorNames_data()
{
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("expectedName");
    const QStringList names{"NoError", "RecoverablePlaybackError", "UnrecoverablePlaybackError", "RecoverableFetchError",
                            "UnrecoverableFetchError", "TimeoutFetchError", "ForbiddenFetchError"};
    for (int error = 0; error < names.size(); ++error)
        QTest::addRow("error %d is %s", error, qPrintable(names[error])) << error << names[error];
}

void TestMediaServerState::errorNames()
{
    QFETCH(int, error);
    QFETCH(QString, expectedName);
    LogCapture capture;
    QCOMPARE(MediaServerUtils::nameForError(MediaServerError(error)), expectedName);
    QCOMPARE(capture.asserts().size(), 0);
}

void TestMediaServerState::unknownNumbers_data()
{
    QTest::addColumn<bool>("isState");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("expectedMessage");

    const QString state = QStringLiteral("MediaServerUtils::nameForState(): unknown state: %1");
    const QString error = QStringLiteral("MediaServerUtils::nameForError(): unknown error: %1");
    QTest::newRow("state 13, one past the last, is unknown") << true << 13 << state.arg(13);
    QTest::newRow("state -1 is unknown") << true << -1 << state.arg(-1);
    QTest::newRow("state 100 is unknown") << true << 100 << state.arg(100);
    QTest::newRow("error 7, one past the last, is unknown") << false << 7 << error.arg(7);
    QTest::newRow("error -1 is unknown") << false << -1 << error.arg(-1);
    QTest::newRow("error 100 is unknown") << false << 100 << error.arg(100);
}

void TestMediaServerState::unknownNumbers()
{
    QFETCH(bool, isState);
    QFETCH(int, number);
    QFETCH(QString, expectedMessage);

    LogCapture capture;
    const QString name = isState ? MediaServerUtils::nameForState(MediaServerState(number))
                                 : MediaServerUtils::nameForError(MediaServerError(number));
    QCOMPARE(name, QString("Unknown"));
    const QList<LogRecord> asserts = capture.asserts();
    QCOMPARE(asserts.size(), 1);
    QCOMPARE(asserts[0].condition, QString("false"));
    QCOMPARE(asserts[0].message, expectedMessage);
    QVERIFY2(asserts[0].file.endsWith("UI/media_server/MediaServerState.cpp"), qPrintable(asserts[0].file));
}

void TestMediaServerState::pairText_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("error");
    QTest::addColumn<QString>("expectedText");
    QTest::newRow("the default pair") << 0 << 0 << "NoMedia, NoError";
    QTest::newRow("playing without error") << int(Playing) << int(NoError) << "Playing, NoError";
    QTest::newRow("last state with last error") << int(MediaFetchError) << int(ForbiddenFetchError)
                                                 << "MediaFetchError, ForbiddenFetchError";
}

void TestMediaServerState::pairText()
{
    QFETCH(int, state);
    QFETCH(int, error);
    QFETCH(QString, expectedText);
    QCOMPARE(pair(state, error).toString(), expectedText);
}

void TestMediaServerState::pairVariant_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("error");
    QTest::newRow("the default pair") << 0 << 0;
    QTest::newRow("paused with a timeout") << int(Paused) << int(TimeoutFetchError);
    QTest::newRow("last state with last error") << int(MediaFetchError) << int(ForbiddenFetchError);
}

void TestMediaServerState::pairVariant()
{
    QFETCH(int, state);
    QFETCH(int, error);
    const QVariant variant = pair(state, error).toVariant();
    QCOMPARE(variant.userType(), int(QMetaType::QVariantList));
    const QVariantList list = variant.toList();
    QCOMPARE(list.size(), 2);
    QCOMPARE(list[0].userType(), int(QMetaType::Int));
    QCOMPARE(list[1].userType(), int(QMetaType::Int));
    QCOMPARE(list, (QVariantList{state, error}));
}

void TestMediaServerState::pairFromVariant_data()
{
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<bool>("expectedOk");
    QTest::addColumn<int>("expectedState");
    QTest::addColumn<int>("expectedError");

    // Every row starts from Playing/RecoverableFetchError, so "unchanged" is visible.
    QTest::newRow("one element sets the state and clears the error")
        << QVariant(QVariantList{7}) << true << int(Paused) << int(NoError);
    QTest::newRow("two elements set both") << QVariant(QVariantList{12, 6}) << true << int(MediaFetchError)
                                           << int(ForbiddenFetchError);
    QTest::newRow("an empty list is the default pair") << QVariant(QVariantList{}) << true << int(NoMedia) << int(NoError);
    QTest::newRow("a list of number texts is read as numbers")
        << QVariant(QStringList{"7", "0"}) << true << int(Paused) << int(NoError);
    QTest::newRow("text is refused and the pair kept") << QVariant(QString("abc")) << false << int(Playing)
                                                       << int(RecoverableFetchError);
    QTest::newRow("bytes are refused and the pair kept") << QVariant(QByteArray("\x07")) << false << int(Playing)
                                                        << int(RecoverableFetchError);
    QTest::newRow("a null variant is refused and the pair kept") << QVariant() << false << int(Playing)
                                                                 << int(RecoverableFetchError);
    QTest::newRow("a lone int is refused and the pair kept") << QVariant(5) << false << int(Playing)
                                                             << int(RecoverableFetchError);
}

void TestMediaServerState::pairFromVariant()
{
    QFETCH(QVariant, input);
    QFETCH(bool, expectedOk);
    QFETCH(int, expectedState);
    QFETCH(int, expectedError);

    MediaServerStateDataValueData data = pair(Playing, RecoverableFetchError);
    QCOMPARE(data.setFromVariant(input), expectedOk);
    QCOMPARE(int(data.state), expectedState);
    QCOMPARE(int(data.error), expectedError);
}

void TestMediaServerState::retrieveBeforeFirstSet()
{
    MediaServerStateDataValue value(uniqueName());
    MediaServerState state = Seeking;
    MediaServerError error = TimeoutFetchError;
    QVERIFY(!value.retrieveState(&state, &error));
    QCOMPARE(state, Seeking);
    QCOMPARE(error, TimeoutFetchError);
    bool valid = true;
    value.serverState(&valid);
    QVERIFY(!valid);
    QCOMPARE(value.toString(), QString("invalid"));
}

void TestMediaServerState::setThenRetrieve_data()
{
    QTest::addColumn<int>("state");
    QTest::addColumn<int>("error");
    QTest::newRow("the default pair is a value once set") << int(NoMedia) << int(NoError);
    QTest::newRow("playing without error") << int(Playing) << int(NoError);
    QTest::newRow("fetch error with its reason") << int(MediaFetchError) << int(ForbiddenFetchError);
}

void TestMediaServerState::setThenRetrieve()
{
    QFETCH(int, state);
    QFETCH(int, error);

    MediaServerStateDataValue value(uniqueName());
    value.setState(MediaServerState(state), MediaServerError(error));
    MediaServerState gotState = Seeking;
    MediaServerError gotError = TimeoutFetchError;
    QVERIFY(value.retrieveState(&gotState, &gotError));
    QCOMPARE(int(gotState), state);
    QCOMPARE(int(gotError), error);
    QVERIFY(value.retrieveState(nullptr, nullptr));
    bool valid = false;
    QCOMPARE(int(value.serverState(&valid)), state);
    QVERIFY(valid);
    QCOMPARE(value.variant(), QVariant(QVariantList{state, error}));
}

void TestMediaServerState::changeSignals_data()
{
    QTest::addColumn<QVariantList>("pairs");   // each [state, error], set in order
    QTest::addColumn<int>("expectedChanges");

    const QVariantList playing{int(Playing), int(NoError)};
    const QVariantList buffering{int(Buffering), int(NoError)};
    QTest::newRow("the first set is one change") << QVariantList{playing} << 1;
    QTest::newRow("re-setting the same pair is no change") << QVariantList{playing, playing} << 1;
    QTest::newRow("Buffering to Buffering is no change") << QVariantList{buffering, buffering, buffering} << 1;
    QTest::newRow("a different state is one more change") << QVariantList{playing, buffering} << 2;
    QTest::newRow("a different error alone is one more change")
        << QVariantList{playing, QVariantList{int(Playing), int(RecoverablePlaybackError)}} << 2;
    QTest::newRow("back to an earlier pair is a change") << QVariantList{playing, buffering, playing} << 3;
}

void TestMediaServerState::changeSignals()
{
    QFETCH(QVariantList, pairs);
    QFETCH(int, expectedChanges);

    MediaServerStateDataValue value(uniqueName());
    QSignalSpy valueSpy(&value, &DataValue::valueChanged);
    QSignalSpy stateSpy(&value, &MediaServerStateDataValue::mediaServerStateChanged);
    for (const QVariant& p : pairs)
        value.setState(MediaServerState(p.toList()[0].toInt()), MediaServerError(p.toList()[1].toInt()));

    QCOMPARE(valueSpy.count(), expectedChanges);
    QCOMPARE(stateSpy.count(), expectedChanges);
    QCOMPARE(valueSpy.last().at(0).value<DataValue*>(), &value);
    QCOMPARE(stateSpy.last().at(0).value<MediaServerStateDataValue*>(), &value);
    QCOMPARE(value.variant(), QVariant(pairs.last()));
}

QTEST_GUILESS_MAIN(TestMediaServerState)
#include "tst_media_server_state.moc"
