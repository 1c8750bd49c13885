#include "platform/datavalue/BoolDataValue.h"
#include "platform/datavalue/ConnectionUsageDataValue.h"
#include "platform/datavalue/DataValueManager.h"
#include "platform/datavalue/IntDataValue.h"
#include "platform/datavalue/RealDataValue.h"
#include "platform/datavalue/StringDataValue.h"
#include "platform/datavalue/Uint64DataValue.h"
#include "tests/support/LogCapture.h"

#include <QtTest>

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
    void writeSequenceBroadcasts_data()
    {
        QTest::addColumn<bool>("initiallyValid");   // the value starts as 5, or invalid
        QTest::addColumn<QString>("steps");         // comma-separated: "lock", "unlock", "set N", "invalidate"
        QTest::addColumn<QStringList>("broadcasts");   // what the receiver reads at each broadcast
        QTest::addColumn<QString>("expectedText");
        const QStringList none;
        QTest::newRow("writing the value it was made with makes an invalid value valid; again broadcasts nothing")
            << false << "set 5,set 5" << QStringList{"5"} << "5";
        QTest::newRow("writing NaN twice broadcasts once") << true << "set nan,set nan" << QStringList{"nan"} << "nan";
        QTest::newRow("A to B and back to A under one lock broadcasts nothing") << true << "lock,set 6,set 5,unlock" << none << "5";
        QTest::newRow("invalidating a valid value broadcasts") << true << "invalidate" << QStringList{"invalid"} << "invalid";
        QTest::newRow("invalidating an invalid value broadcasts nothing") << false << "invalidate" << none << "invalid";
        QTest::newRow("invalidate and rewrite under one lock: nothing") << true << "lock,invalidate,set 5,unlock" << none << "5";
        QTest::newRow("several changes under nested locks broadcast once, at the outermost release")
            << true << "lock,lock,set 6,unlock,lock,set 7,unlock,unlock" << QStringList{"7"} << "7";
    }
    void writeSequenceBroadcasts()
    {
        QFETCH(bool, initiallyValid);
        QFETCH(QString, steps);
        QFETCH(QStringList, broadcasts);
        QFETCH(QString, expectedText);
        const QString name = uniqueName("seq");
        RealDataValue value(name, false, 1, 5, initiallyValid);
        DataValueManager::instance()->startLogging(&value);   // each broadcast is one log line,
        DataValueManager::instance()->startLogging(&value);   // even after a second start
        QStringList seen, logged;
        connect(&value, &DataValue::valueChanged, this, [&](DataValue* changed) {
            seen.append(changed == &value ? changed->toString() : QStringLiteral("wrong sender"));
            logged.append(QStringLiteral("logChange(): %1 changed: %2").arg(name, seen.last()));
        });
        LogCapture capture;
        std::vector<std::unique_ptr<DataValue::EventLocker>> lockers;
        for (const QString& step : steps.split(QLatin1Char(','))) {
            if (step == u"lock")
                lockers.push_back(std::make_unique<DataValue::EventLocker>(&value));
            else if (step == u"unlock")
                lockers.pop_back();
            else if (step == u"invalidate")
                value.setInvalid();
            else
                value.setValue(step.section(QLatin1Char(' '), 1).toDouble());
        }
        QCOMPARE(seen, broadcasts);
        QCOMPARE(capture.lines(), logged);
        QCOMPARE(value.toString(), expectedText);
        QCOMPARE(value.isValid(), expectedText != QLatin1String("invalid"));
        QCOMPARE(value.variant().isValid(), value.isValid());
    }

    void setFromVariant_data()
    {
        QTest::addColumn<QString>("kind");
        QTest::addColumn<QVariant>("input");
        QTest::addColumn<QVariant>("expected");   // also the variant type the value must report; null: refused
        const QVariant refused;
        QTest::newRow("int from text with spaces around") << "int" << QVariant(" -5 ") << QVariant(-5);
        QTest::newRow("int from 2.5 is refused") << "int" << QVariant(2.5) << refused;
        QTest::newRow("int from 3000000000 is refused") << "int" << QVariant(Q_INT64_C(3000000000)) << refused;
        QTest::newRow("uint64 from -1 is refused") << "uint64" << QVariant(-1) << refused;
        QTest::newRow("uint64 from the text of its largest number")
            << "uint64" << QVariant("18446744073709551615") << QVariant(Q_UINT64_C(18446744073709551615));
        QTest::newRow("real from number text") << "real" << QVariant("2.25") << QVariant(2.25);
        QTest::newRow("real from nan text is refused") << "real" << QVariant("nan") << refused;
        QTest::newRow("bool from text 0") << "bool" << QVariant("0") << QVariant(false);
        QTest::newRow("bool from text maybe is refused") << "bool" << QVariant("maybe") << refused;
        QTest::newRow("bool from int 1 is refused") << "bool" << QVariant(1) << refused;
        QTest::newRow("string from bytes") << "string" << QVariant(QByteArray("c")) << QVariant("c");
        QTest::newRow("string from int is refused") << "string" << QVariant(5) << refused;
    }
    void setFromVariant()
    {
        QFETCH(QString, kind);
        QFETCH(QVariant, input);
        QFETCH(QVariant, expected);
        IntDataValue intValue(uniqueName("int"), false, 1, 7, true);
        Uint64DataValue uint64Value(uniqueName("uint64"), false, 1, 9, true);
        RealDataValue realValue(uniqueName("real"), false, 1, 1.0, true);
        BoolDataValue boolValue(uniqueName("bool"), false, 1, true);
        StringDataValue stringValue(uniqueName("string"), false, 1, QStringLiteral("a"), true);
        DataValue* value = QHash<QString, DataValue*>{{"int", &intValue}, {"uint64", &uint64Value}, {"real", &realValue},
                                                      {"bool", &boolValue}, {"string", &stringValue}}.value(kind);
        const QVariant want = expected.isValid() ? expected : value->variant();   // a refused input changes nothing
        QSignalSpy spy(value, &DataValue::valueChanged);
        QCOMPARE(value->setFromVariant(input), expected.isValid());
        QCOMPARE(value->variant().userType(), want.userType());
        QCOMPARE(value->variant(), want);
        QCOMPARE(spy.count(), expected.isValid() ? 1 : 0);
    }

    // One writer, three readers (one per accessor): readers see only written values, in order.
    // The value is text, which a read racing a write could tear or free under the reader, so
    // this fails when the readers' lock is missing.
    void concurrentReadersSeeOnlyWrittenValues()
    {
        const int lastWritten = 2 * 20000;
        const int repeats = 16;   // long enough to be on the heap, not copied in one word
        auto written = [repeats](int n) { return QString::number(n).repeated(repeats); };
        StringDataValue value(uniqueName("threads"), false, 1, written(0), true);
        std::atomic<bool> writerDone{false};
        std::atomic<int> readersStarted{0}, badReads{0};
        auto reader = [&](int accessor) {
            ++readersStarted;
            int last = 0;
            for (bool done = false; !done;) {
                done = writerDone.load();
                const QString text = accessor == 0 ? value.value() : accessor == 1 ? value.variant().toString() : value.toString();
                bool ok = false;
                const int read = text.left(text.size() / repeats).toInt(&ok);
                badReads += !ok || text != written(read) || read < last || read % 2 != 0 || read > lastWritten;
                last = read;
            }
            badReads += last != lastWritten;
        };
        std::vector<std::thread> threads;
        for (int accessor = 0; accessor < 3; ++accessor)
            threads.emplace_back(reader, accessor);
        threads.emplace_back([&] {
            while (readersStarted.load() < 3)   // every reader is running before the first write
                std::this_thread::yield();
            for (int n = 2; n <= lastWritten; n += 2)
                value.setValue(written(n));
            writerDone = true;
        });
        for (std::thread& t : threads)
            t.join();
        QCOMPARE(badReads.load(), 0);
    }

    // Both writers alternate categories: they race on the same counters and on creating them.
    // Every byte is in the value at once; the broadcasts are far fewer than the writes, and the
    // last one (the trailing broadcast) reads every byte.
    void concurrentTrafficIsCountedExactly()
    {
        const int adds = 5000;
        NetStats::ConnectionUsageDataValue usage(uniqueName("traffic"));
        std::atomic<int> broadcasts{0};
        std::atomic<quint64> lastBroadcastTotal{0};
        connect(&usage, &DataValue::valueChanged, this, [&] {
            ++broadcasts;
            lastBroadcastTotal = usage.value().totalReceived();
        }, Qt::DirectConnection);
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
        const QVariantMap category2 = usage.variant().toMap().value("categories").toMap().value("2").toMap();
        QCOMPARE(category2.value("received").toULongLong(), quint64(adds * 3));
        QVERIFY2(broadcasts.load() < adds / 10, qPrintable(QString::number(broadcasts.load())));
        QTRY_COMPARE(lastBroadcastTotal.load(), counted.totalReceived());
    }

    void registryAndInitialValues()
    {
        DataValueManager* manager = DataValueManager::instance();
        IntDataValue good(QStringLiteral("TEST_init_good"), false, 1, 7, true), bad(QStringLiteral("TEST_init_bad"), false, 1, 7, true);
        StringDataValue text(QStringLiteral("TEST_init_text"), false, 1, QStringLiteral("before"), true);
        QCOMPARE(manager->find(text.name()), &text);
        const QStringList names = manager->names();
        QVERIFY(names.indexOf(bad.name()) >= 0 && names.indexOf(bad.name()) < names.indexOf(good.name()));   // sorted
        const QString transient = uniqueName("transient");
        {
            BoolDataValue gone(transient, false, 1, true);
            QCOMPARE(manager->find(transient), &gone);
        }
        QCOMPARE(manager->find(transient), nullptr);

        QTemporaryDir dir;
        QFile file(dir.filePath(QStringLiteral("values.conf")));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write("TEST_init_unknown=5\nTEST_init_bad=abc\nTEST_init_good=42\nTEST_init_text=hello\n") > 0);
        file.close();
        LogCapture capture;
        QVERIFY(manager->loadInitialValues(file.fileName()));
        QCOMPARE(good.toString(), QString("42"));
        QCOMPARE(text.toString(), QString("hello"));
        QCOMPARE(bad.toString(), QString("7"));   // a bad value keeps the built-in one
        const QString warning = QStringLiteral("applyInitialValue(): initial values file %1: %2").arg(file.fileName());
        QCOMPARE(capture.lines(), (QStringList{warning.arg("abc is not a valid value for TEST_init_bad"),
                                     warning.arg("no data value named TEST_init_unknown")}));
        QVERIFY(!manager->loadInitialValues(dir.filePath(QStringLiteral("missing.conf"))));
    }

    void linkStateFollower()
    {
        IntDataValue link(uniqueName("link"), true, 1, 0, false), otherLink(uniqueName("otherLink"), true, 1, 50, true);
        NetStats::ConnectionUsageDataValue usage(uniqueName("follower"));
        auto linkState = [&] {   // the typed and the variant form must agree
            return usage.variant().toMap().value("linkState").toInt() == usage.value().linkState ? usage.value().linkState : -100;
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
};

QTEST_GUILESS_MAIN(TestDataValue)
#include "tst_datavalue.moc"
