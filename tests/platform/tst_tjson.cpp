#include "platform/core/TJson.h"

#include <QTest>

class TestTJson : public QObject
{
    Q_OBJECT

private slots:
    void parse_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<bool>("allowScalar");
        QTest::addColumn<bool>("expectedOk");
        QTest::addColumn<QVariant>("expected");
        const QVariant invalid;
        QTest::newRow("null at any depth becomes an invalid value")
            << QByteArray("{\"n\":null,\"a\":[null,{\"m\":null}]}") << false << true
            << QVariant(QVariantMap{{"n", invalid}, {"a", QVariantList{invalid, QVariantMap{{"m", invalid}}}}});
        QTest::newRow("unterminated object fails") << QByteArray("{") << false << false << invalid;
        QTest::newRow("garbage after the object fails") << QByteArray("{\"a\":1} x") << false << false << invalid;
        QTest::newRow("lone number is refused by default") << QByteArray("5") << false << false << invalid;
        QTest::newRow("lone number is accepted when scalars are allowed") << QByteArray("5") << true << true << QVariant(qlonglong(5));
        QTest::newRow("lone null is an invalid value with ok set") << QByteArray("null") << true << true << invalid;
        QTest::newRow("lone scalar after byte order mark and white space")
            << QByteArray("\xEF\xBB\xBF 7 \n") << true << true << QVariant(qlonglong(7));
        QTest::newRow("two values separated by a comma are not a scalar") << QByteArray("1,2") << true << false << invalid;
        QTest::newRow("brackets cannot smuggle in two arrays") << QByteArray("1],[2") << true << false << invalid;
        QTest::newRow("empty text fails when scalars are allowed") << QByteArray("") << true << false << invalid;
        QTest::newRow("2^53 + 1 stays an exact integer")
            << QByteArray("9007199254740993") << true << true << QVariant(qlonglong(9007199254740993LL));
    }
    // ok starts at the opposite of the expectation, so a parser that forgot to set it fails here.
    // The type is compared too, since QVariant calls 9007199254740992.0 and 9007199254740993 equal.
    void parse()
    {
        QFETCH(QByteArray, json);
        QFETCH(bool, allowScalar);
        QFETCH(bool, expectedOk);
        QFETCH(QVariant, expected);
        bool ok = !expectedOk;
        const QVariant result = TJson::Parser::parse(json, &ok, allowScalar);
        QCOMPARE(ok, expectedOk);
        QCOMPARE(result.typeId(), expected.typeId());
        QCOMPARE(result, expected);
        if (!expectedOk)
            QVERIFY(!TJson::Parser::parse(json, nullptr, allowScalar).isValid());
    }

    void serialize_data()
    {
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<bool>("indented");
        QTest::addColumn<QByteArray>("expected");
        QTest::newRow("members come out in sorted key order, capitals first")
            << QVariant(QVariantMap{{"b", 1}, {"a", 2}, {"B", 3}}) << false << QByteArray("{\"B\":3,\"a\":2,\"b\":1}");
        QTest::newRow("64-bit integers are written digit for digit")
            << QVariant(QVariantMap{{"n", qint64(9223372036854775807LL)}, {"m", qint64(-5000000000LL)}}) << false
            << QByteArray("{\"m\":-5000000000,\"n\":9223372036854775807}");
        QTest::newRow("invalid value inside a list is null") << QVariant(QVariantList{QVariant(), true}) << false << QByteArray("[null,true]");
        QTest::newRow("top-level qint64 is a bare number, exact beyond 2^53")
            << QVariant(qint64(9007199254740993LL)) << false << QByteArray("9007199254740993");
        QTest::newRow("top-level string is quoted and escaped") << QVariant("a\"b") << false << QByteArray("\"a\\\"b\"");
        QTest::newRow("top-level invalid value is null") << QVariant() << false << QByteArray("null");
        QTest::newRow("indented scalar stays a bare value") << QVariant(5) << true << QByteArray("5");
    }
    void serialize()
    {
        QFETCH(QVariant, value);
        QFETCH(bool, indented);
        QFETCH(QByteArray, expected);
        QCOMPARE(TJson::Serializer::serialize(value, indented), expected);
    }

    // Comparing the re-serialised text as well catches a big integer that came back as a nearby
    // double, which QVariant's numeric comparison would call equal.
    void indentedMapWithEveryKindRoundTrips()
    {
        const QVariantList bigIntegers{qint64(5000000000LL), qint64(9007199254740993LL), qint64(-9223372036854775807LL - 1)};
        const QVariant value(QVariantMap{{"s", QString::fromUtf8("caf\xC3\xA9 \"q\"")}, {"d", 0.5}, {"b", true},
                                         {"n", QVariant()}, {"l", bigIntegers}});
        const QByteArray text = TJson::Serializer::serialize(value, true);
        bool ok = false;
        const QVariant parsed = TJson::Parser::parse(text, &ok, true);
        QVERIFY(ok);
        QCOMPARE(parsed, value);
        QCOMPARE(TJson::Serializer::serialize(parsed, true), text);
    }
};

QTEST_APPLESS_MAIN(TestTJson)
#include "tst_tjson.moc"
