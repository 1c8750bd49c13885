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

static QString uniqueName(const char* prefix)
{
    static std::atomic<int> counter{0};
    return QStringLiteral("TEST_%1_%2").arg(QLatin1String(prefix)).arg(++counter);
}

class TestDataValue : public QObject
{
    Q_OBJECT

private slots:
    void writeSequenceBroadcasts_data(); void writeSequenceBroadcasts();
    void protectedValues();
    void setFromVariant_data(); void setFromVariant();
    void concurrentReadersSeeOnlyWrittenValues();
    void concurrentTrafficIsCountedExactly();
    void registry();
    void loadInitialValues();
    void changeLogging();
    void linkStateFollower();
};

void TestDataValue::writeSequenceBroadcasts_data()
{
    QTest::addColumn<bool>("initiallyValid");   // the value starts as 5, or invalid
    QTest::addColumn<QString>("steps");         // comma-separated: "lock", "unlock", "set N", "invalidate"
    QTest::addColumn<int>("expectedBroadcasts");
    QTest::addColumn<QString>("expectedText");

    QTest::newRow("first write of the default value makes an invalid value valid and broadcasts") << false << "set 0" << 1 << "0";
    QTest::newRow("writing the same value twice broadcasts once") << false << "set 4,set 4" << 1 << "4";
    QTest::newRow("separate changes broadcast each") << false << "set 1,set 2,set 3" << 3 << "3";
    QTest::newRow("A to B and back to A under one lock broadcasts nothing") << true << "lock,set 6,set 5,unlock" << 0 << "5";
    QTest::newRow("several changes under one lock broadcast once") << true << "lock,set 6,set 7,set 8,unlock" << 1 << "8";
    QTest::newRow("invalidating a valid value broadcasts") << true << "invalidate" << 1 << "invalid";
    QTest::newRow("invalidating an invalid value broadcasts nothing") << false << "invalidate" << 0 << "invalid";
    QTest::newRow("invalidate then rewrite the value under one lock broadcasts nothing")
        << true << "lock,invalidate,set 5,unlock" << 0 << "5";
    QTest::newRow("nested locks broadcast once at the outermost release")
        << true << "lock,lock,set 6,unlock,lock,set 7,unlock,unlock" << 1 << "7";
}

void TestDataValue::writeSequenceBroadcasts()
{
    QFETCH(bool, initiallyValid);
    QFETCH(QString, steps);
    QFETCH(int, expectedBroadcasts);
    QFETCH(QString, expectedText);
    IntDataValue value(uniqueName("seq"), false, 1, 5, initiallyValid);
    QStringList seen;   // what each broadcast's receiver could read at that moment
    connect(&value, &DataValue::valueChanged, this, [&](DataValue* changed) {
        seen.append(changed == &value ? changed->toString() : QStringLiteral("wrong sender"));
    });
    std::vector<std::unique_ptr<DataValue::EventLocker>> lockers;
    for (const QString& step : steps.split(QLatin1Char(','))) {
        if (step == QLatin1String("lock"))
            lockers.push_back(std::make_unique<DataValue::EventLocker>(&value));
        else if (step == QLatin1String("unlock"))
            lockers.pop_back();
        else if (step == QLatin1String("invalidate"))
            value.setInvalid();
        else
            value.setValue(step.section(QLatin1Char(' '), 1).toInt());
    }

    QCOMPARE(seen.size(), expectedBroadcasts);
    if (expectedBroadcasts > 0)
        QCOMPARE(seen.last(), expectedText);
    QCOMPARE(value.toString(), expectedText);
    QCOMPARE(value.isValid(), expectedText != QLatin1String("invalid"));
    QCOMPARE(value.variant().isValid(), value.isValid());
}

void TestDataValue::protectedValues()
{
    const QString name = uniqueName("protected");
    IntDataValue value(name, false, 1, 1, true);
    value.setProtected(true);
    IntDataValue plain(uniqueName("unprotected"), false, 1, 1, true);
    LogCapture capture;
    value.setProtectedValue(2);   // the allowed way: silent
    plain.setValue(2);            // an unprotected value: silent
    QCOMPARE(capture.asserts().size(), 0);
    value.setValue(8);
    QCOMPARE(value.toString(), QString("8"));   // reported, and still made
    value.setInvalid();
    const QList<LogRecord> asserts = capture.asserts();
    QCOMPARE(asserts.size(), 2);
    QCOMPARE(asserts[0].condition, QString("setByListenerNoLock() || !isProtected()"));
    QCOMPARE(asserts[0].message, QString("Protected data value %1 not set with setProtectedValue").arg(name));
    QVERIFY2(asserts[0].file.endsWith("platform/datavalue/DataValue.cpp"), qPrintable(asserts[0].file));
    QCOMPARE(asserts[1].message, asserts[0].message);   // invalidating is reported too
}

void TestDataValue::setFromVariant_data()
{
    QTest::addColumn<QString>("kind");
    QTest::addColumn<QVariant>("input");
    QTest::addColumn<QVariant>("expected");   // also the variant type the value must report; null: refused

    const QVariant refused;
    QTest::newRow("int from text with spaces around") << "int" << QVariant(" -5 ") << QVariant(-5);
    QTest::newRow("int from non-number text is refused") << "int" << QVariant("abc") << refused;
    QTest::newRow("int from 3000000000 is refused") << "int" << QVariant(Q_INT64_C(3000000000)) << refused;
    QTest::newRow("uint64 from -1 is refused") << "uint64" << QVariant(-1) << refused;
    QTest::newRow("uint64 from the text of its largest number")
        << "uint64" << QVariant("18446744073709551615") << QVariant(Q_UINT64_C(18446744073709551615));
    QTest::newRow("real from number text") << "real" << QVariant("2.25") << QVariant(2.25);
    QTest::newRow("real from nan text is refused") << "real" << QVariant("nan") << refused;
    QTest::newRow("bool from text 0") << "bool" << QVariant("0") << QVariant(false);
    QTest::newRow("bool from text maybe is refused") << "bool" << QVariant("maybe") << refused;
    QTest::newRow("string from bytes") << "string" << QVariant(QByteArray("c")) << QVariant("c");
    QTest::newRow("string from int is refused") << "string" << QVariant(5) << refused;
}

void TestDataValue::setFromVariant()
{
    QFETCH(QString, kind);
    QFETCH(QVariant, input);
    QFETCH(QVariant, expected);
    IntDataValue intValue(uniqueName("int"), false, 1, 7, true);
    Uint64DataValue uint64Value(uniqueName("uint64"), false, 1, 9, true);
    RealDataValue realValue(uniqueName("real"), false, 1, 1.0, true);
    BoolDataValue boolValue(uniqueName("bool"), false, 1, true);
    StringDataValue stringValue(uniqueName("string"), false, 1, QStringLiteral("a"), true);
    const QHash<QString, DataValue*> byKind{
        {"int", &intValue}, {"uint64", &uint64Value}, {"real", &realValue}, {"bool", &boolValue}, {"string", &stringValue}};
    DataValue* value = byKind.value(kind);
    const QVariant before = value->variant();
    QSignalSpy spy(value, &DataValue::valueChanged);
    QCOMPARE(value->setFromVariant(input), expected.isValid());
    const QVariant want = expected.isValid() ? expected : before;   // a refused input changes nothing
    QCOMPARE(value->variant().userType(), want.userType());
    QCOMPARE(value->variant(), want);
    QCOMPARE(spy.count(), expected.isValid() ? 1 : 0);
}

void TestDataValue::concurrentReadersSeeOnlyWrittenValues()
{
    // One writer, three readers (one per accessor): readers see only written values, in order.
    const int lastWritten = 2 * 20000;
    IntDataValue value(uniqueName("threads"), false, 1, 0, true);
    std::atomic<bool> writerDone{false};
    std::atomic<int> readersStarted{0};
    std::atomic<int> badReads{0};
    auto reader = [&](int accessor) {
        ++readersStarted;
        int last = 0;
        for (bool done = false; !done;) {
            done = writerDone.load();
            bool ok = true;
            const int read = accessor == 0 ? value.value()
                             : accessor == 1 ? value.variant().toInt(&ok) : value.toString().toInt(&ok);
            if (!ok || read < last || read % 2 != 0 || read > lastWritten)
                ++badReads;
            last = read;
        }
        if (last != lastWritten)
            ++badReads;
    };
    std::vector<std::thread> threads;
    for (int accessor = 0; accessor < 3; ++accessor)
        threads.emplace_back(reader, accessor);
    threads.emplace_back([&] {
        while (readersStarted.load() < 3)   // every reader is running before the first write
            std::this_thread::yield();
        for (int n = 2; n <= lastWritten; n += 2)
            value.setValue(n);
        writerDone = true;
    });
    for (std::thread& t : threads)
        t.join();
    QCOMPARE(badReads.load(), 0);
}

void TestDataValue::concurrentTrafficIsCountedExactly()
{
    // Both writers alternate categories: they race on the same counters and on creating them.
    const int adds = 5000;
    NetStats::ConnectionUsageDataValue usage(uniqueName("traffic"));
    auto writer = [&] {
        for (int i = 0; i < adds; ++i)
            usage.addTraffic(1 + i % 2, 3, 1);
    };
    std::thread first(writer), second(writer);
    first.join();
    second.join();
    const NetStats::ConnectionUsage counted = usage.value();
    QCOMPARE(counted.totalReceived(), quint64(2 * adds * 3));
    QCOMPARE(counted.totalSent(), quint64(2 * adds));
    QCOMPARE(counted.categories.value(1).received, quint64(adds * 3));
    const QVariantMap category2 = usage.variant().toMap().value("categories").toMap().value("2").toMap();
    QCOMPARE(category2.value("received").toULongLong(), quint64(adds * 3));
}

void TestDataValue::registry()
{
    DataValueManager* manager = DataValueManager::instance();
    IntDataValue lateValue(QStringLiteral("TEST_zz_registry"));
    StringDataValue earlyValue(QStringLiteral("TEST_aa_registry"));
    QCOMPARE(manager->find(lateValue.name()), &lateValue);
    QCOMPARE(manager->find(earlyValue.name()), &earlyValue);
    QCOMPARE(manager->find(QStringLiteral("TEST_never_created")), nullptr);
    const QStringList names = manager->names();   // sorted
    QVERIFY(names.indexOf(earlyValue.name()) >= 0 && names.indexOf(earlyValue.name()) < names.indexOf(lateValue.name()));
    const QString transient = uniqueName("transient");
    {
        BoolDataValue gone(transient, false, 1, true);
        QCOMPARE(manager->find(transient), &gone);
    }
    QCOMPARE(manager->find(transient), nullptr);
    QVERIFY(!manager->names().contains(transient));
}

void TestDataValue::loadInitialValues()
{
    IntDataValue good(QStringLiteral("TEST_init_good"), false, 1, 7, true);
    IntDataValue bad(QStringLiteral("TEST_init_bad"), false, 1, 7, true);
    StringDataValue text(QStringLiteral("TEST_init_text"), false, 1, QStringLiteral("before"), true);
    QTemporaryDir dir;
    const QString path = dir.filePath(QStringLiteral("values.conf"));
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    file.write("TEST_init_unknown=5\nTEST_init_bad=abc\nTEST_init_good=42\nTEST_init_text=hello\n");
    file.close();
    LogCapture capture;
    QVERIFY(DataValueManager::instance()->loadInitialValues(path));
    QCOMPARE(good.toString(), QString("42"));
    QCOMPARE(text.toString(), QString("hello"));
    QCOMPARE(bad.toString(), QString("7"));   // a bad value keeps the built-in one
    const QStringList warnings = capture.lines().filter(QStringLiteral("initial values file"));
    const QString warning = QStringLiteral("initial values file %1: %2").arg(path);
    QCOMPARE(warnings.size(), 2);
    QCOMPARE(warnings.filter(warning.arg("no data value named TEST_init_unknown")).size(), 1);
    QCOMPARE(warnings.filter(warning.arg("abc is not a valid value for TEST_init_bad")).size(), 1);
    QVERIFY(!DataValueManager::instance()->loadInitialValues(dir.filePath(QStringLiteral("missing.conf"))));
}

void TestDataValue::changeLogging()
{
    const QString name = uniqueName("logged");
    IntDataValue value(name, false, 1, 1, true);
    DataValueManager::instance()->startLogging(&value);
    DataValueManager::instance()->startLogging(&value);   // a second start must not log twice
    LogCapture capture;
    value.setValue(3);
    value.setValue(3);   // no change, no line
    {
        DataValue::EventLocker locker(&value);   // changes under one lock log once
        value.setValue(4);
        value.setValue(5);
    }
    const QString line = QStringLiteral("logChange(): %1 changed: %2");
    QTRY_COMPARE(capture.lines().filter(name), (QStringList{line.arg(name, "3"), line.arg(name, "5")}));
}

void TestDataValue::linkStateFollower()
{
    IntDataValue link(uniqueName("link"), true, 1, 0, false);
    IntDataValue otherLink(uniqueName("otherLink"), true, 1, 50, true);
    NetStats::ConnectionUsageDataValue usage(uniqueName("follower"));
    auto linkState = [&] {   // the typed and the variant form must agree
        const int state = usage.value().linkState;
        return usage.variant().toMap().value("linkState").toInt() == state ? state : -100;
    };
    usage.setLinkStateValue(&otherLink);
    QCOMPARE(linkState(), 50);   // a link that has a value is picked up at once
    usage.addTraffic(1, 10, 0);
    usage.setLinkStateValue(&link);
    QCOMPARE(linkState(), -1);   // an invalid link reads as -1
    link.setValue(9);
    QCOMPARE(linkState(), 9);   // later changes are followed
    otherLink.setValue(51);
    QCOMPARE(linkState(), 9);   // the previous link is no longer followed
    link.setInvalid();
    QCOMPARE(linkState(), -1);
    QCOMPARE(usage.value().totalReceived(), quint64(10));   // following the link keeps the counts
}

QTEST_GUILESS_MAIN(TestDataValue)
#include "tst_datavalue.moc"
