#include "UI/media_server/MediaServerStateDataValue.h"
#include "media_server/MediaServerDataValues.h"
#include "platform/datavalue/DataValueManager.h"
#include "tests/support/LogCapture.h"
#include "vehicle/VehicleDataValues.h"

#include <QSignalSpy>
#include <QTest>

using namespace MediaV2;

static QString uniqueName()
{
    static int counter = 0;
    return QStringLiteral("TEST_serverState_%1").arg(++counter);
}

class TestMediaServerState : public QObject
{
    Q_OBJECT

private slots:
    // Reads the process's values before any test writes them.
    void initialValues_data(); void initialValues();
    void names_data(); void names();
    void pairFromVariant_data(); void pairFromVariant();
    void setAndChangeSignals_data(); void setAndChangeSignals();
};

void TestMediaServerState::initialValues_data()
{
    QTest::addColumn<QString>("name");
    QTest::addColumn<QVariant>("expectedVariant");   // null: no value yet
    QTest::addColumn<bool>("expectedExternallyWritable");

    const QVariant none;
    const QVariantMap nothingCounted{{"linkState", -1}, {"received", QVariant::fromValue<quint64>(0)},
                                     {"sent", QVariant::fromValue<quint64>(0)}, {"categories", QVariantMap()}};
    for (const char* name : {"MEDIA2_serverState", "MEDIA2_nowPlayingTitle", "MEDIA2_streamBitRate", "MEDIA2_totalBytes",
                             "MEDIA2_downloadedBytes", "MEDIA2_elapsedTime"})
        QTest::addRow("%s has no value yet", name) << name << none << false;
    QTest::newRow("buffer progress reads 0") << "MEDIA2_bufferProgress" << QVariant(0.0) << false;
    QTest::newRow("stream cached reads false") << "MEDIA2_streamCached" << QVariant(false) << false;
    QTest::newRow("custom media reads false") << "MEDIA2_playingCustomMedia" << QVariant(false) << false;
    QTest::newRow("network statistics have nothing counted") << "MEDIA2_connNetStats" << QVariant(nothingCounted) << false;
    QTest::newRow("internet use is allowed and set from outside") << "GUI_canUseInternet" << QVariant(true) << true;
    QTest::newRow("link state has no value yet and is set from outside") << "LINK_linkState" << none << true;
}

void TestMediaServerState::initialValues()
{
    QFETCH(QString, name);
    QFETCH(QVariant, expectedVariant);
    QFETCH(bool, expectedExternallyWritable);
    DataValue* value = DataValueManager::instance()->find(name);
    QVERIFY2(value, qPrintable(name));
    QCOMPARE(value->isValid(), expectedVariant.isValid());
    QCOMPARE(value->variant().userType(), expectedVariant.userType());
    QCOMPARE(value->variant(), expectedVariant);
    QCOMPARE(value->isExternallyWritable(), expectedExternallyWritable);
}

void TestMediaServerState::names_data()
{
    QTest::addColumn<bool>("isState");
    QTest::addColumn<int>("number");
    QTest::addColumn<QString>("expectedName");
    QTest::addColumn<QString>("expectedAssert");   // empty: none

    const QStringList states{"NoMedia", "Loading", "Loaded", "TryingToPlay", "TryingToPause", "Seeking", "Playing",
                             "Paused", "Buffering", "Stopping", "PlaybackComplete", "PlaybackError", "MediaFetchError"};
    const QStringList errors{"NoError", "RecoverablePlaybackError", "UnrecoverablePlaybackError", "RecoverableFetchError",
                             "UnrecoverableFetchError", "TimeoutFetchError", "ForbiddenFetchError"};
    for (int i = 0; i < states.size(); ++i)
        QTest::addRow("state %d is %s", i, qPrintable(states[i])) << true << i << states[i] << QString();
    for (int i = 0; i < errors.size(); ++i)
        QTest::addRow("error %d is %s", i, qPrintable(errors[i])) << false << i << errors[i] << QString();
    const QString state = QStringLiteral("MediaServerUtils::nameForState(): unknown state: %1");
    const QString error = QStringLiteral("MediaServerUtils::nameForError(): unknown error: %1");
    QTest::newRow("state 13, one past the last, is unknown") << true << 13 << "Unknown" << state.arg(13);
    QTest::newRow("error 7, one past the last, is unknown") << false << 7 << "Unknown" << error.arg(7);
}

void TestMediaServerState::names()
{
    QFETCH(bool, isState);
    QFETCH(int, number);
    QFETCH(QString, expectedName);
    QFETCH(QString, expectedAssert);
    LogCapture capture;
    QCOMPARE(isState ? MediaServerUtils::nameForState(MediaServerState(number))
                     : MediaServerUtils::nameForError(MediaServerError(number)),
             expectedName);
    QCOMPARE(capture.assertMessages(), expectedAssert.isEmpty() ? QStringList() : QStringList{expectedAssert});
}

void TestMediaServerState::pairFromVariant_data()
{
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<QList<int>>("expected");   // state, error; empty: refused, Playing/RecoverableFetchError kept

    QTest::newRow("one element sets the state and clears the error") << QVariant(QVariantList{7}) << QList<int>{Paused, NoError};
    QTest::newRow("two elements set both") << QVariant(QVariantList{12, 6}) << QList<int>{MediaFetchError, ForbiddenFetchError};
    QTest::newRow("a list of number texts is read as numbers") << QVariant(QStringList{"7", "0"}) << QList<int>{Paused, NoError};
    QTest::newRow("text is refused and the pair kept") << QVariant(QString("abc")) << QList<int>();
    QTest::newRow("a null variant is refused and the pair kept") << QVariant() << QList<int>();
}

void TestMediaServerState::pairFromVariant()
{
    QFETCH(QVariant, input);
    QFETCH(QList<int>, expected);
    MediaServerStateDataValueData data{Playing, RecoverableFetchError};
    QCOMPARE(data.setFromVariant(input), !expected.isEmpty());
    QCOMPARE((QList<int>{data.state, data.error}), (expected.isEmpty() ? QList<int>{Playing, RecoverableFetchError} : expected));
}

void TestMediaServerState::setAndChangeSignals_data()
{
    QTest::addColumn<QList<int>>("pairs");   // state, error, state, error, ... set in order
    QTest::addColumn<int>("expectedChanges");
    QTest::addColumn<QString>("expectedText");

    QTest::newRow("the default pair is a value once set") << QList<int>{NoMedia, NoError} << 1 << "NoMedia, NoError";
    QTest::newRow("the last state with the last error")
        << QList<int>{MediaFetchError, ForbiddenFetchError} << 1 << "MediaFetchError, ForbiddenFetchError";
    QTest::newRow("same pair again is no change") << QList<int>{Playing, NoError, Playing, NoError} << 1 << "Playing, NoError";
    QTest::newRow("a different state is one more change")
        << QList<int>{Playing, NoError, Buffering, NoError} << 2 << "Buffering, NoError";
    QTest::newRow("a different error alone is one more change")
        << QList<int>{Playing, NoError, Playing, RecoverablePlaybackError} << 2 << "Playing, RecoverablePlaybackError";
    QTest::newRow("back to an earlier pair is a change")
        << QList<int>{Playing, NoError, Buffering, NoError, Playing, NoError} << 3 << "Playing, NoError";
}

void TestMediaServerState::setAndChangeSignals()
{
    QFETCH(QList<int>, pairs);
    QFETCH(int, expectedChanges);
    QFETCH(QString, expectedText);
    MediaServerStateDataValue value(uniqueName());
    MediaServerState state = Seeking;
    MediaServerError error = TimeoutFetchError;
    bool valid = true;
    value.serverState(&valid);
    QVERIFY(!value.retrieveState(&state, &error) && !valid);   // no pair before the first set,
    QVERIFY(state == Seeking && error == TimeoutFetchError);     // and nothing written
    QSignalSpy valueSpy(&value, &DataValue::valueChanged);
    QSignalSpy stateSpy(&value, &MediaServerStateDataValue::mediaServerStateChanged);
    for (int i = 0; i < pairs.size(); i += 2)
        value.setState(MediaServerState(pairs[i]), MediaServerError(pairs[i + 1]));
    QCOMPARE(valueSpy.count(), expectedChanges);
    QCOMPARE(stateSpy.count(), expectedChanges);
    QCOMPARE(stateSpy.last().at(0).value<MediaServerStateDataValue*>(), &value);
    const QList<int> last = pairs.mid(pairs.size() - 2);
    QVERIFY(value.retrieveState(&state, &error) && value.retrieveState(nullptr, nullptr));
    QCOMPARE((QList<int>{state, error}), last);
    QCOMPARE(int(value.serverState(&valid)), last[0]);
    QVERIFY(valid);
    const QVariantList list = value.variant().toList();   // [state, error] as ints
    QCOMPARE(list, (QVariantList{last[0], last[1]}));
    QVERIFY(list[0].userType() == QMetaType::Int && list[1].userType() == QMetaType::Int);
    QCOMPARE(value.toString(), expectedText);
}

QTEST_GUILESS_MAIN(TestMediaServerState)
#include "tst_media_server_state.moc"
