#include "platform/datavalue/IntDataValue.h"
#include "platform/datavalue/StringDataValue.h"
#include "platform/service/ServiceDataPublisher.h"

#include <QtTest>

namespace {

const QString kMessage = QStringLiteral("TestMessage");

// A publisher of one message: an int and a string value.
class OneMessagePublisher : public ServiceDataPublisher
{
public:
    OneMessagePublisher(int frequencyMs, int rateLimitMs, int lowFrequencyMs = 50)
        : ServiceDataPublisher(QStringLiteral("TestService"), lowFrequencyMs, rateLimitMs)
    {
        addMessage(kMessage, frequencyMs, [this](QDataStream& stream) {
            writeHeader(stream, 0x11223344, 0xAABBCCDD, 2);
            writeValue(stream, number);
            writeValue(stream, text);
        });
        connect(&number, &DataValue::valueChanged, this, [this] { messageChanged(kMessage); });
        startTimers();
    }

    IntDataValue number{QStringLiteral("TEST_publisher_number")};
    StringDataValue text{QStringLiteral("TEST_publisher_text")};
};

// When each message went out, in ms since the start, and the number it carried (the int sits
// at a fixed offset: two ints and two uint variants of 9 bytes, then the int variant's 5 bytes
// of type and null flag).
struct Sent
{
    qint64 atMs;
    int number;
};

} // namespace

class TestDataPublisher : public QObject
{
    Q_OBJECT

private slots:
    void bodyIsByteExact_data()
    {
        QTest::addColumn<QVariant>("number");   // null: invalid
        QTest::addColumn<QVariant>("text");
        QTest::addColumn<QByteArray>("valuesHex");   // after the fixed 26-byte header
        QTest::newRow("values") << QVariant(7) << QVariant(QStringLiteral("ab")) << QByteArray("00000002" "00" "00000007" "0000000a" "00" "00000004" "00610062");
        QTest::newRow("zero and empty are values, not null") << QVariant(0) << QVariant(QString(""))
                                                             << QByteArray("00000002" "00" "00000000" "0000000a" "00" "00000000");
    }
    void bodyIsByteExact()
    {
        QFETCH(QVariant, number);
        QFETCH(QVariant, text);
        QFETCH(QByteArray, valuesHex);
        OneMessagePublisher publisher(0, 10);
        if (number.isValid())
            publisher.number.setValue(number.toInt());
        if (text.isValid())
            publisher.text.setValue(text.toString());
        QByteArray body;
        QVERIFY(publisher.assemble(kMessage, &body));
        const QByteArray header("00000000" "00000004" "00000003" "00" "11223344" "00000003" "00" "aabbccdd");
        QCOMPARE(body.toHex(), header + valuesHex);
        QVERIFY(!publisher.assemble(QStringLiteral("NoSuchMessage"), &body));
    }

    // A burst of changes (values 1..burst) at the start, then what goes out for watchMs. With
    // frequency 0, nothing beyond what the burst caused may go out.
    void schedule_data()
    {
        QTest::addColumn<int>("frequencyMs");
        QTest::addColumn<int>("rateLimitMs");
        QTest::addColumn<int>("burst");
        QTest::addColumn<int>("watchMs");
        QTest::addColumn<QList<int>>("numbers");   // what each message carried; empty: not checked
        QTest::addColumn<int>("atLeast");          // messages
        QTest::addColumn<int>("atMost");
        QTest::newRow("a burst is sent at once, then once more with its end") << 0 << 300 << 20 << 900 << QList<int>{1, 20} << 2 << 2;
        QTest::newRow("a frequency sends without changes") << 100 << 10 << 0 << 650 << QList<int>{} << 5 << 7;
        QTest::newRow("no frequency outruns the rate limit") << 1 << 100 << 5 << 650 << QList<int>{} << 6 << 7;
    }
    void schedule()
    {
        QFETCH(int, frequencyMs);
        QFETCH(int, rateLimitMs);
        QFETCH(int, burst);
        QFETCH(int, watchMs);
        QFETCH(QList<int>, numbers);
        QFETCH(int, atLeast);
        QFETCH(int, atMost);
        OneMessagePublisher publisher(frequencyMs, rateLimitMs);
        QElapsedTimer clock;
        QList<Sent> sent;
        connect(&publisher, &ServiceDataPublisher::messagePublished, this, [&](const QString&, const QByteArray& body) {
            QDataStream stream(body.mid(31, 4));
            int number = -1;
            stream >> number;
            sent.append({clock.elapsed(), number});
        });
        clock.start();
        for (int value = 1; value <= burst; ++value)
            publisher.number.setValue(value);
        QDeadlineTimer deadline(watchMs);
        while (!deadline.hasExpired())
            QTest::qWait(10);
        QVERIFY2(sent.size() >= atLeast && sent.size() <= atMost, qPrintable(QString::number(sent.size())));
        for (int k = 1; k < sent.size(); ++k)
            QVERIFY2(sent[k].atMs - sent[k - 1].atMs >= rateLimitMs,
                     qPrintable(QStringLiteral("%1 ms apart").arg(sent[k].atMs - sent[k - 1].atMs)));
        if (!numbers.isEmpty()) {
            QList<int> carried;
            for (const Sent& message : sent)
                carried.append(message.number);
            QCOMPARE(carried, numbers);
        }
    }
};

QTEST_GUILESS_MAIN(TestDataPublisher)
#include "tst_data_publisher.moc"
