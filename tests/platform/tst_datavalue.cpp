#include "platform/datavalue/BoolDataValue.h"
#include "platform/datavalue/ConnectionUsageDataValue.h"
#include "platform/datavalue/DataValueManager.h"
#include "platform/datavalue/IntDataValue.h"
#include "platform/datavalue/RealDataValue.h"
#include "platform/datavalue/StringDataValue.h"
#include "platform/datavalue/Uint64DataValue.h"
#include "tests/support/LogCapture.h"

#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTest>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

namespace {

QString uniqueName(const char* prefix)
{
    static std::atomic<int> counter{0};
    return QStringLiteral("TEST_%1_%2").arg(QLatin1String(prefix)).arg(++counter);
}

// Runs write steps on `value`: "lock", "unlock", "set N", "invalidate".
void runSteps(IntDataValue* value, const QStringList& steps)
{
    std::vector<std::unique_ptr<DataValue::EventLocker>> lockers;
    for (const QString& step : steps) {
        if (step == QLatin1String("lock"))
            lockers.push_back(std::make_unique<DataValue::EventLocker>(value));
        else if (step == QLatin1String("unlock"))
            lockers.pop_back();
        else if (step == QLatin1String("invalidate"))
            value->setInvalid();
        else
            value->setValue(step.section(QLatin1Char(' '), 1).toInt());
    }
}

// A fresh value of the named kind ("int", "uint64", "real", "bool", "string"), holding
// `initial` (set through the typed constructor, not the conversions under test) or invalid.
std::unique_ptr<DataValue> makeValue(const QString& kind, const QVariant& initial = QVariant())
{
    const QString name = uniqueName("kind");
    const bool valid = initial.isValid();
    if (kind == QLatin1String("int"))
        return std::make_unique<IntDataValue>(name, false, 1, initial.toInt(), valid);
    if (kind == QLatin1String("uint64"))
        return std::make_unique<Uint64DataValue>(name, false, 1, initial.toULongLong(), valid);
    if (kind == QLatin1String("real"))
        return std::make_unique<RealDataValue>(name, false, 1, initial.toDouble(), valid);
    if (kind == QLatin1String("bool"))
        return std::make_unique<BoolDataValue>(name, false, 1, initial.toBool());
    return std::make_unique<StringDataValue>(name, false, 1, initial.toString(), valid);
}

} // namespace

class TestDataValue : public QObject
{
    Q_OBJECT

private slots:
    void writeSequenceBroadcasts_data(); void writeSequenceBroadcasts();
    void nestedLocksCommitAtOutermostRelease_data(); void nestedLocksCommitAtOutermostRelease();
    void protectedValues_data(); void protectedValues();
    void variantForms_data(); void variantForms();
    void setFromVariant_data(); void setFromVariant();
    void concurrentReadersSeeOnlyWrittenValues_data(); void concurrentReadersSeeOnlyWrittenValues();
    void concurrentTrafficIsCountedExactly_data(); void concurrentTrafficIsCountedExactly();
    void registry();
    void loadInitialValues_data(); void loadInitialValues();
    void changeLogging_data(); void changeLogging();
    void trafficAccumulates_data(); void trafficAccumulates();
    void linkStateFollower_data(); void linkStateFollower();
};

void TestDataValue::writeSequenceBroadcasts_data()
{
    QTest::addColumn<bool>("initiallyValid");
    QTest::addColumn<int>("broadcastPolicy");
    QTest::addColumn<QStringList>("steps");
    QTest::addColumn<int>("expectedBroadcasts");
    QTest::addColumn<bool>("expectedValid");
    QTest::addColumn<int>("expectedValue");

    QTest::newRow("first write of the default value makes an invalid value valid and broadcasts")
        << false << 1 << QStringList{"set 0"} << 1 << true << 0;
    QTest::newRow("writing the same value twice broadcasts once") << false << 1 << QStringList{"set 4", "set 4"} << 1 << true << 4;
    QTest::newRow("separate changes broadcast each") << false << 1 << QStringList{"set 1", "set 2", "set 3"} << 3 << true << 3;
    QTest::newRow("A to B and back to A under one lock broadcasts nothing")
        << true << 1 << QStringList{"lock", "set 6", "set 5", "unlock"} << 0 << true << 5;
    QTest::newRow("A to B under one lock broadcasts once") << true << 1 << QStringList{"lock", "set 5", "set 6", "unlock"} << 1 << true << 6;
    QTest::newRow("several changes under one lock broadcast once")
        << true << 1 << QStringList{"lock", "set 6", "set 7", "set 8", "unlock"} << 1 << true << 8;
    QTest::newRow("invalidating a valid value broadcasts") << true << 1 << QStringList{"invalidate"} << 1 << false << 5;
    QTest::newRow("invalidating an invalid value broadcasts nothing") << false << 1 << QStringList{"invalidate"} << 0 << false << 0;
    QTest::newRow("write then invalidate under one lock leaves an invalid value silent")
        << false << 1 << QStringList{"lock", "set 3", "invalidate", "unlock"} << 0 << false << 0;
    QTest::newRow("invalidate then rewrite the value under one lock broadcasts nothing")
        << true << 1 << QStringList{"lock", "invalidate", "set 5", "unlock"} << 0 << true << 5;
    QTest::newRow("nested locks broadcast once at the outermost release")
        << true << 1 << QStringList{"lock", "lock", "set 6", "unlock", "lock", "set 7", "unlock", "unlock"} << 1 << true << 7;
    QTest::newRow("a value that never broadcasts still commits") << false << 0 << QStringList{"set 9"} << 0 << true << 9;
}

void TestDataValue::writeSequenceBroadcasts()
{
    QFETCH(bool, initiallyValid);
    QFETCH(int, broadcastPolicy);
    QFETCH(QStringList, steps);
    QFETCH(int, expectedBroadcasts);
    QFETCH(bool, expectedValid);
    QFETCH(int, expectedValue);

    IntDataValue value(uniqueName("seq"), false, broadcastPolicy, 5, initiallyValid);
    // What each broadcast carried and what its receiver could read at that moment.
    QList<DataValue*> senders;
    QStringList seen;
    connect(&value, &DataValue::valueChanged, this, [&](DataValue* changed) {
        senders.append(changed);
        seen.append(changed->toString());
    });
    runSteps(&value, steps);

    const QString expectedText = expectedValid ? QString::number(expectedValue) : QStringLiteral("invalid");
    QCOMPARE(senders.size(), expectedBroadcasts);
    QCOMPARE(senders.count(&value), expectedBroadcasts);
    if (expectedBroadcasts > 0)
        QCOMPARE(seen.last(), expectedText);
    QCOMPARE(value.isValid(), expectedValid);
    QCOMPARE(value.toString(), expectedText);
    if (!expectedValid)
        QVERIFY(!value.variant().isValid());
}

void TestDataValue::nestedLocksCommitAtOutermostRelease_data()
{
    QTest::addColumn<int>("depth");
    QTest::newRow("one lock commits at its release") << 1;
    QTest::newRow("two locks commit only at the outer release") << 2;
    QTest::newRow("four locks commit only at the outermost release") << 4;
}

void TestDataValue::nestedLocksCommitAtOutermostRelease()
{
    QFETCH(int, depth);
    IntDataValue value(uniqueName("nest"), false, 1, 1, true);
    QSignalSpy spy(&value, &DataValue::valueChanged);
    std::vector<std::unique_ptr<DataValue::EventLocker>> lockers;
    for (int i = 0; i < depth; ++i)
        lockers.push_back(std::make_unique<DataValue::EventLocker>(&value));
    value.setValue(2);
    while (!lockers.empty()) {
        // A reader on another thread is not held up by the writer's lock and sees the old value.
        int readElsewhere = 0;
        std::thread reader([&] { readElsewhere = value.value(); });
        reader.join();
        QCOMPARE(readElsewhere, 1);
        QCOMPARE(value.value(), 1);
        QCOMPARE(spy.count(), 0);
        lockers.pop_back();
    }
    QCOMPARE(value.value(), 2);
    QCOMPARE(spy.count(), 1);
}

void TestDataValue::protectedValues_data()
{
    QTest::addColumn<bool>("isProtected");
    QTest::addColumn<QString>("how");
    QTest::addColumn<bool>("expectAssert");
    QTest::newRow("plain set of a protected value is reported and still made") << true << "set" << true;
    QTest::newRow("invalidating a protected value is reported") << true << "invalidate" << true;
    QTest::newRow("setProtectedValue on a protected value is silent") << true << "protectedSet" << false;
    QTest::newRow("plain set of an unprotected value is silent") << false << "set" << false;
}

void TestDataValue::protectedValues()
{
    QFETCH(bool, isProtected);
    QFETCH(QString, how);
    QFETCH(bool, expectAssert);

    const QString name = uniqueName("protected");
    IntDataValue value(name, false, 1, 1, true);
    value.setProtected(isProtected);
    LogCapture capture;
    if (how == QLatin1String("set"))
        value.setValue(8);
    else if (how == QLatin1String("protectedSet"))
        value.setProtectedValue(8);
    else
        value.setInvalid();

    QCOMPARE(value.toString(), how == QLatin1String("invalidate") ? QString("invalid") : QString("8"));
    const QList<LogRecord> asserts = capture.asserts();
    QCOMPARE(asserts.size(), expectAssert ? 1 : 0);
    if (expectAssert) {
        QCOMPARE(asserts[0].condition, QString("setByListenerNoLock() || !isProtected()"));
        QCOMPARE(asserts[0].message, QString("Protected data value %1 not set with setProtectedValue").arg(name));
        QVERIFY2(asserts[0].file.endsWith("platform/datavalue/DataValue.cpp"), qPrintable(asserts[0].file));
    }
}

void TestDataValue::variantForms_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QVariant>("written");   // null: never written
    QTest::addColumn<QVariant>("expectedVariant");
    QTest::addColumn<QString>("expectedText");

    QTest::newRow("int is an int") << "int" << QVariant(-42) << QVariant(-42) << "-42";
    QTest::newRow("uint64 is a qulonglong beyond 32 bits")
        << "uint64" << QVariant(Q_UINT64_C(1099511627777)) << QVariant::fromValue<qulonglong>(Q_UINT64_C(1099511627777))
        << "1099511627777";
    QTest::newRow("real is a double") << "real" << QVariant(2.5) << QVariant(2.5) << "2.5";
    QTest::newRow("bool is a bool") << "bool" << QVariant(true) << QVariant(true) << "true";
    QTest::newRow("string is a string") << "string" << QVariant(QString("h\u00e9llo")) << QVariant(QString("h\u00e9llo")) << "h\u00e9llo";
    QTest::newRow("invalid int is a null variant") << "int" << QVariant() << QVariant() << "invalid";
    QTest::newRow("invalid string is a null variant") << "string" << QVariant() << QVariant() << "invalid";
}

void TestDataValue::variantForms()
{
    QFETCH(QString, kind);
    QFETCH(QVariant, written);
    QFETCH(QVariant, expectedVariant);
    QFETCH(QString, expectedText);

    std::unique_ptr<DataValue> value = makeValue(kind, written);
    const QVariant actual = value->variant();
    QCOMPARE(actual.userType(), expectedVariant.userType());
    QCOMPARE(actual, expectedVariant);
    QCOMPARE(value->toString(), expectedText);
}

void TestDataValue::setFromVariant_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QVariant>("initial");
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<bool>("expectedOk");
    QTest::addColumn<QVariant>("expected");

    const QVariant none;
    QTest::newRow("int from number text") << "int" << QVariant(7) << QVariant("42") << true << QVariant(42);
    QTest::newRow("int from text with spaces around") << "int" << QVariant(7) << QVariant(" -5 ") << true << QVariant(-5);
    QTest::newRow("int from non-number text is refused") << "int" << QVariant(7) << QVariant("abc") << false << QVariant(7);
    QTest::newRow("int from empty text is refused") << "int" << QVariant(7) << QVariant("") << false << QVariant(7);
    QTest::newRow("int from 3000000000 is refused") << "int" << QVariant(7) << QVariant(Q_INT64_C(3000000000)) << false << QVariant(7);
    QTest::newRow("int from unsigned 3000000000 is refused")
        << "int" << QVariant(7) << QVariant(Q_UINT64_C(3000000000)) << false << QVariant(7);
    QTest::newRow("int from a whole double") << "int" << QVariant(7) << QVariant(2.0) << true << QVariant(2);
    QTest::newRow("int from a fractional double is refused") << "int" << QVariant(7) << QVariant(2.5) << false << QVariant(7);
    QTest::newRow("int from a null variant is refused") << "int" << QVariant(7) << none << false << QVariant(7);
    QTest::newRow("uint64 from -1 is refused") << "uint64" << QVariant(9) << QVariant(-1) << false << QVariant(9);
    QTest::newRow("uint64 from text -1 is refused") << "uint64" << QVariant(9) << QVariant("-1") << false << QVariant(9);
    QTest::newRow("uint64 from its largest number")
        << "uint64" << QVariant(9) << QVariant(Q_UINT64_C(18446744073709551615)) << true << QVariant(Q_UINT64_C(18446744073709551615));
    QTest::newRow("uint64 from the text of its largest number")
        << "uint64" << QVariant(9) << QVariant("18446744073709551615") << true << QVariant(Q_UINT64_C(18446744073709551615));
    QTest::newRow("real from number text") << "real" << QVariant(1.0) << QVariant("2.25") << true << QVariant(2.25);
    QTest::newRow("real from an int") << "real" << QVariant(1.0) << QVariant(3) << true << QVariant(3.0);
    QTest::newRow("real from non-number text is refused") << "real" << QVariant(1.0) << QVariant("abc") << false << QVariant(1.0);
    QTest::newRow("real from nan text is refused") << "real" << QVariant(1.0) << QVariant("nan") << false << QVariant(1.0);
    QTest::newRow("bool from text true") << "bool" << QVariant(false) << QVariant("true") << true << QVariant(true);
    QTest::newRow("bool from text 0") << "bool" << QVariant(true) << QVariant("0") << true << QVariant(false);
    QTest::newRow("bool from int 1") << "bool" << QVariant(false) << QVariant(1) << true << QVariant(true);
    QTest::newRow("bool from text maybe is refused") << "bool" << QVariant(true) << QVariant("maybe") << false << QVariant(true);
    QTest::newRow("bool from int 2 is refused") << "bool" << QVariant(false) << QVariant(2) << false << QVariant(false);
    QTest::newRow("string from text") << "string" << QVariant("a") << QVariant("b") << true << QVariant("b");
    QTest::newRow("string from bytes") << "string" << QVariant("a") << QVariant(QByteArray("c")) << true << QVariant("c");
    QTest::newRow("string from int is refused") << "string" << QVariant("a") << QVariant(5) << false << QVariant("a");
}

void TestDataValue::setFromVariant()
{
    QFETCH(QString, kind);
    QFETCH(QVariant, initial);
    QFETCH(QVariant, input);
    QFETCH(bool, expectedOk);
    QFETCH(QVariant, expected);

    std::unique_ptr<DataValue> value = makeValue(kind, initial);
    QSignalSpy spy(value.get(), &DataValue::valueChanged);
    QCOMPARE(value->setFromVariant(input), expectedOk);
    QCOMPARE(value->variant(), expected);
    QCOMPARE(spy.count(), initial == expected ? 0 : 1);
}

void TestDataValue::concurrentReadersSeeOnlyWrittenValues_data()
{
    QTest::addColumn<QString>("accessor");
    QTest::newRow("value() readers") << "value";
    QTest::newRow("variant() readers") << "variant";
    QTest::newRow("toString() readers") << "toString";
}

void TestDataValue::concurrentReadersSeeOnlyWrittenValues()
{
    QFETCH(QString, accessor);
    const int lastWritten = 2 * 20000;
    IntDataValue value(uniqueName("threads"), false, 1, 0, true);
    std::atomic<bool> writerDone{false};
    std::atomic<int> readersStarted{0};
    std::atomic<int> badReads{0};
    auto readOnce = [&] {
        bool ok = true;
        int read = -1;
        if (accessor == QLatin1String("value"))
            read = value.value();
        else if (accessor == QLatin1String("variant"))
            read = value.variant().toInt(&ok);
        else
            read = value.toString().toInt(&ok);
        return ok ? read : -1;
    };
    auto reader = [&] {
        int last = 0;
        do {
            const int read = readOnce();
            if (read < last || read % 2 != 0 || read > lastWritten)
                ++badReads;
            last = read;
            if (read == 0)
                ++readersStarted;
        } while (!writerDone.load());
        if (readOnce() != lastWritten)
            ++badReads;
    };
    std::vector<std::thread> readers;
    for (int i = 0; i < 3; ++i)
        readers.emplace_back(reader);
    std::thread writer([&] {
        while (readersStarted.load() < 3)   // every reader is reading before the first write
            std::this_thread::yield();
        for (int n = 2; n <= lastWritten; n += 2)
            value.setValue(n);
        writerDone = true;
    });
    writer.join();
    for (std::thread& t : readers)
        t.join();
    QCOMPARE(badReads.load(), 0);
}

void TestDataValue::concurrentTrafficIsCountedExactly_data()
{
    QTest::addColumn<int>("firstCategory");
    QTest::addColumn<int>("secondCategory");
    QTest::newRow("two writers on different categories lose nothing") << 1 << 2;
    QTest::newRow("two writers on the same category lose nothing") << 4 << 4;
}

void TestDataValue::concurrentTrafficIsCountedExactly()
{
    QFETCH(int, firstCategory);
    QFETCH(int, secondCategory);
    const int adds = 5000;
    NetStats::ConnectionUsageDataValue usage(uniqueName("traffic"));
    auto writer = [&](int category) {
        for (int i = 0; i < adds; ++i)
            usage.addTraffic(category, 3, 1);
    };
    std::thread first(writer, firstCategory);
    std::thread second(writer, secondCategory);
    first.join();
    second.join();

    const NetStats::ConnectionUsage counted = usage.value();
    QCOMPARE(counted.totalReceived(), quint64(2 * adds * 3));
    QCOMPARE(counted.totalSent(), quint64(2 * adds * 1));
    QCOMPARE(counted.categories.value(firstCategory).received, quint64(firstCategory == secondCategory ? 2 * adds * 3 : adds * 3));
    const QVariantMap map = usage.variant().toMap();
    QCOMPARE(map.value("received").toULongLong(), quint64(2 * adds * 3));
    QCOMPARE(map.value("sent").toULongLong(), quint64(2 * adds));
}

void TestDataValue::registry()
{
    DataValueManager* manager = DataValueManager::instance();
    const QString late = QStringLiteral("TEST_zz_registry");
    const QString early = QStringLiteral("TEST_aa_registry");
    IntDataValue lateValue(late);
    StringDataValue earlyValue(early);
    QCOMPARE(manager->find(late), &lateValue);
    QCOMPARE(manager->find(early), &earlyValue);
    QCOMPARE(manager->find(QStringLiteral("TEST_never_created")), nullptr);

    const QStringList names = manager->names();
    QVERIFY(names.contains(late) && names.contains(early));
    QStringList sorted = names;
    sorted.sort();
    QCOMPARE(names, sorted);

    const QString transient = uniqueName("transient");
    {
        BoolDataValue gone(transient, false, 1, true);
        QCOMPARE(manager->find(transient), &gone);
    }
    QCOMPARE(manager->find(transient), nullptr);
    QVERIFY(!manager->names().contains(transient));
}

void TestDataValue::loadInitialValues_data()
{
    QTest::addColumn<QByteArray>("fileText");
    QTest::addColumn<QString>("expectedInt");
    QTest::addColumn<QString>("expectedString");
    QTest::addColumn<QString>("expectedWarning");   // a fragment of the one warning; empty: none

    QTest::newRow("good lines take the file's values")
        << QByteArray("TEST_init_int=42\nTEST_init_string=hello\n") << "42" << "hello" << QString();
    QTest::newRow("an unknown name is logged and skipped")
        << QByteArray("TEST_init_unknown=5\nTEST_init_int=42\n") << "42" << "before" << "no data value named TEST_init_unknown";
    QTest::newRow("a bad value is logged and the built-in value kept")
        << QByteArray("TEST_init_int=abc\nTEST_init_string=hello\n") << "7" << "hello"
        << "abc is not a valid value for TEST_init_int";
}

void TestDataValue::loadInitialValues()
{
    QFETCH(QByteArray, fileText);
    QFETCH(QString, expectedInt);
    QFETCH(QString, expectedString);
    QFETCH(QString, expectedWarning);

    IntDataValue intValue(QStringLiteral("TEST_init_int"), false, 1, 7, true);
    StringDataValue stringValue(QStringLiteral("TEST_init_string"), false, 1, QStringLiteral("before"), true);
    QTemporaryDir dir;
    QVERIFY(dir.isValid());
    const QString path = dir.filePath(QStringLiteral("values.conf"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write(fileText);
    file.close();

    LogCapture capture;
    QVERIFY(DataValueManager::instance()->loadInitialValues(path));
    QCOMPARE(intValue.toString(), expectedInt);
    QCOMPARE(stringValue.toString(), expectedString);
    const QStringList warnings = capture.lines().filter(QStringLiteral("initial values file"));
    QCOMPARE(warnings.size(), expectedWarning.isEmpty() ? 0 : 1);
    if (!expectedWarning.isEmpty())
        QVERIFY2(warnings[0].contains(expectedWarning) && warnings[0].contains(path), qPrintable(warnings[0]));

    QVERIFY(!DataValueManager::instance()->loadInitialValues(dir.filePath(QStringLiteral("missing.conf"))));
}

void TestDataValue::changeLogging_data()
{
    QTest::addColumn<QList<int>>("writes");
    QTest::addColumn<bool>("underOneLock");
    QTest::addColumn<bool>("startedTwice");
    QTest::addColumn<QStringList>("expectedTexts");
    QTest::newRow("each committed change logs once") << QList<int>{3, 3, 4} << false << false << QStringList{"3", "4"};
    QTest::newRow("changes under one lock log once") << QList<int>{3, 4, 5} << true << false << QStringList{"5"};
    QTest::newRow("logging started twice still logs once") << QList<int>{6} << false << true << QStringList{"6"};
}

void TestDataValue::changeLogging()
{
    QFETCH(QList<int>, writes);
    QFETCH(bool, underOneLock);
    QFETCH(bool, startedTwice);
    QFETCH(QStringList, expectedTexts);

    const QString name = uniqueName("logged");
    IntDataValue value(name, false, 1, 1, true);
    DataValueManager::instance()->startLogging(&value);
    if (startedTwice)
        DataValueManager::instance()->startLogging(&value);
    LogCapture capture;
    {
        std::unique_ptr<DataValue::EventLocker> locker;
        if (underOneLock)
            locker = std::make_unique<DataValue::EventLocker>(&value);
        for (int write : writes)
            value.setValue(write);
    }
    QStringList expected;
    for (const QString& text : expectedTexts)
        expected.append(QStringLiteral("logChange(): %1 changed: %2").arg(name, text));
    QTRY_COMPARE(capture.lines().filter(name), expected);
}

void TestDataValue::trafficAccumulates_data()
{
    QTest::addColumn<QVariantList>("adds");   // each [category, received, sent]
    QTest::addColumn<QVariantMap>("expectedCategories");
    QTest::addColumn<int>("expectedBroadcasts");

    auto counts = [](quint64 received, quint64 sent) {
        return QVariantMap{{"received", QVariant::fromValue(received)}, {"sent", QVariant::fromValue(sent)}};
    };
    QTest::newRow("nothing counted yet") << QVariantList{} << QVariantMap{} << 0;
    QTest::newRow("one download counts its bytes") << QVariantList{QVariantList{1, 100, 10}} << QVariantMap{{"1", counts(100, 10)}} << 1;
    QTest::newRow("downloads in one category add up")
        << QVariantList{QVariantList{1, 100, 10}, QVariantList{1, 50, 5}} << QVariantMap{{"1", counts(150, 15)}} << 2;
    QTest::newRow("categories are counted separately")
        << QVariantList{QVariantList{1, 100, 0}, QVariantList{2, 30, 7}} << QVariantMap{{"1", counts(100, 0)}, {"2", counts(30, 7)}} << 2;
    QTest::newRow("no bytes counts nothing and broadcasts nothing") << QVariantList{QVariantList{3, 0, 0}} << QVariantMap{} << 0;
}

void TestDataValue::trafficAccumulates()
{
    QFETCH(QVariantList, adds);
    QFETCH(QVariantMap, expectedCategories);
    QFETCH(int, expectedBroadcasts);

    NetStats::ConnectionUsageDataValue usage(uniqueName("usage"));
    QSignalSpy spy(&usage, &DataValue::valueChanged);
    quint64 received = 0, sent = 0;
    for (const QVariant& add : adds) {
        const QVariantList a = add.toList();
        usage.addTraffic(a[0].toInt(), a[1].toULongLong(), a[2].toULongLong());
        received += a[1].toULongLong();
        sent += a[2].toULongLong();
    }
    QVERIFY(usage.isValid());
    const QVariantMap expected{{"linkState", -1},
                               {"received", QVariant::fromValue(received)},
                               {"sent", QVariant::fromValue(sent)},
                               {"categories", expectedCategories}};
    QCOMPARE(usage.variant().toMap(), expected);
    QCOMPARE(spy.count(), expectedBroadcasts);
}

void TestDataValue::linkStateFollower_data()
{
    QTest::addColumn<QVariant>("linkBefore");   // null: invalid
    QTest::addColumn<QVariantList>("linkWrites");   // null entries: setInvalid()
    QTest::addColumn<int>("expectedLinkState");

    QTest::newRow("an invalid link reads as -1") << QVariant() << QVariantList{} << -1;
    QTest::newRow("a link that has a value is picked up at once") << QVariant(2) << QVariantList{} << 2;
    QTest::newRow("a later change of the link is followed") << QVariant() << QVariantList{4} << 4;
    QTest::newRow("every later change is followed") << QVariant(2) << QVariantList{4, 9} << 9;
    QTest::newRow("a link that becomes invalid reads as -1 again") << QVariant(2) << QVariantList{QVariant()} << -1;
}

void TestDataValue::linkStateFollower()
{
    QFETCH(QVariant, linkBefore);
    QFETCH(QVariantList, linkWrites);
    QFETCH(int, expectedLinkState);

    IntDataValue link(uniqueName("link"), true, 1, linkBefore.toInt(), linkBefore.isValid());
    IntDataValue otherLink(uniqueName("otherLink"), true, 1, 50, true);
    NetStats::ConnectionUsageDataValue usage(uniqueName("follower"));
    usage.setLinkStateValue(&otherLink);
    usage.setLinkStateValue(&link);
    usage.addTraffic(1, 10, 0);
    for (const QVariant& write : linkWrites) {
        if (write.isValid())
            link.setValue(write.toInt());
        else
            link.setInvalid();
    }
    otherLink.setValue(51);   // no longer followed

    QCOMPARE(usage.value().linkState, expectedLinkState);
    QCOMPARE(usage.variant().toMap().value("linkState").toInt(), expectedLinkState);
    QCOMPARE(usage.value().totalReceived(), quint64(10));   // following the link keeps the counts
}

QTEST_GUILESS_MAIN(TestDataValue)
#include "tst_datavalue.moc"
