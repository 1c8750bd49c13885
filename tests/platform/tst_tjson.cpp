#include "platform/core/TJson.h"

#include <QMetaType>
#include <QTest>

namespace {

QByteArray nested(int depth)
{
    return QByteArray(depth, '[') + QByteArray(depth, ']');
}

QString utf8(const char* text)
{
    return QString::fromUtf8(text);
}

} // namespace

class TestTJson : public QObject
{
    Q_OBJECT

private slots:
    void parse_data();
    void parse();
    void parseWithoutOkFlag_data();
    void parseWithoutOkFlag();
    void numberTypes_data();
    void numberTypes();
    void serialize_data();
    void serialize();
    void roundTrip_data();
    void roundTrip();
};

void TestTJson::parse_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("allowScalar");
    QTest::addColumn<bool>("expectedOk");
    QTest::addColumn<QVariant>("expected");

    const QVariant invalid;
    QTest::newRow("empty object gives an empty map") << QByteArray("{}") << false << true << QVariant(QVariantMap());
    QTest::newRow("empty array gives an empty list") << QByteArray("[]") << false << true << QVariant(QVariantList());
    QTest::newRow("object with every value kind")
        << QByteArray(R"({"s":"x","i":1,"d":1.5,"t":true,"f":false,"n":null})") << false << true
        << QVariant(QVariantMap{{"s", "x"}, {"i", 1}, {"d", 1.5}, {"t", true}, {"f", false}, {"n", invalid}});
    QTest::newRow("array keeps its order and nulls")
        << QByteArray(R"([3,"a",null,1])") << false << true << QVariant(QVariantList{3, "a", invalid, 1});
    QTest::newRow("nested objects and arrays")
        << QByteArray(R"({"a":{"b":[1,{"c":[]}]}})") << false << true
        << QVariant(QVariantMap{{"a", QVariantMap{{"b", QVariantList{1, QVariantMap{{"c", QVariantList()}}}}}}});
    QTest::newRow("unicode escapes including a surrogate pair decode")
        << QByteArray(R"(["\u00e9\ud83d\ude00"])") << false << true << QVariant(QVariantList{utf8("\xC3\xA9\xF0\x9F\x98\x80")});
    QTest::newRow("raw UTF-8 in a string decodes")
        << QByteArray("[\"\xC3\xA9\"]") << false << true << QVariant(QVariantList{utf8("\xC3\xA9")});
    QTest::newRow("escaped quote and backslash decode")
        << QByteArray(R"(["a\"b\\c"])") << false << true << QVariant(QVariantList{"a\"b\\c"});
    QTest::newRow("leading UTF-8 byte order mark is skipped")
        << QByteArray("\xEF\xBB\xBF{\"a\":1}") << false << true << QVariant(QVariantMap{{"a", 1}});
    QTest::newRow("surrounding white space is accepted")
        << QByteArray(" \t\r\n{\"a\":1}\n ") << false << true << QVariant(QVariantMap{{"a", 1}});
    QTest::newRow("duplicate key keeps the last value")
        << QByteArray(R"({"a":1,"a":2})") << false << true << QVariant(QVariantMap{{"a", 2}});

    QTest::newRow("unterminated object fails") << QByteArray("{") << false << false << invalid;
    QTest::newRow("member without value fails") << QByteArray(R"({"a":})") << false << false << invalid;
    QTest::newRow("empty text fails") << QByteArray("") << false << false << invalid;
    QTest::newRow("white space only fails") << QByteArray("  \n") << false << false << invalid;
    QTest::newRow("truncated literal fails") << QByteArray("nul") << false << false << invalid;
    QTest::newRow("truncated literal fails even with scalars allowed") << QByteArray("nul") << true << false << invalid;
    QTest::newRow("garbage after the object fails") << QByteArray(R"({"a":1} x)") << false << false << invalid;
    QTest::newRow("second document after the first fails") << QByteArray("{}{}") << false << false << invalid;
    QTest::newRow("trailing comma fails") << QByteArray("[1,]") << false << false << invalid;
    QTest::newRow("single-quoted string fails") << QByteArray("['a']") << false << false << invalid;
    QTest::newRow("unquoted key fails") << QByteArray("{a:1}") << false << false << invalid;
    QTest::newRow("invalid UTF-8 in a string fails") << QByteArray("[\"\xFF\"]") << false << false << invalid;
    QTest::newRow("number beyond double range fails") << QByteArray("[1e309]") << false << false << invalid;
    QTest::newRow("nesting 2000 deep fails instead of crashing") << nested(2000) << false << false << invalid;

    QTest::newRow("lone number is refused by default") << QByteArray("5") << false << false << invalid;
    QTest::newRow("lone string is refused by default") << QByteArray("\"x\"") << false << false << invalid;
    QTest::newRow("lone true is refused by default") << QByteArray("true") << false << false << invalid;
    QTest::newRow("lone number is accepted when scalars are allowed") << QByteArray("5") << true << true << QVariant(5);
    QTest::newRow("lone string is accepted when scalars are allowed") << QByteArray("\"x\"") << true << true << QVariant("x");
    QTest::newRow("lone true is accepted when scalars are allowed") << QByteArray("true") << true << true << QVariant(true);
    QTest::newRow("lone null is accepted as an invalid value with ok set") << QByteArray("null") << true << true << invalid;
    QTest::newRow("lone scalar after byte order mark and white space is accepted")
        << QByteArray("\xEF\xBB\xBF 7 \n") << true << true << QVariant(7);
    QTest::newRow("two values separated by a comma are not a scalar") << QByteArray("1,2") << true << false << invalid;
    QTest::newRow("brackets inside the text cannot smuggle in two arrays") << QByteArray("1],[2") << true << false << invalid;
    QTest::newRow("empty text fails when scalars are allowed") << QByteArray("") << true << false << invalid;
    QTest::newRow("object still parses when scalars are allowed")
        << QByteArray(R"({"a":1})") << true << true << QVariant(QVariantMap{{"a", 1}});
    QTest::newRow("broken object still fails when scalars are allowed") << QByteArray("{") << true << false << invalid;
}

// ok starts at the opposite of the expectation, so a parser that forgot to set it fails here.
void TestTJson::parse()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, allowScalar);
    QFETCH(bool, expectedOk);
    QFETCH(QVariant, expected);

    bool ok = !expectedOk;
    const QVariant result = TJson::Parser::parse(json, &ok, allowScalar);
    QCOMPARE(ok, expectedOk);
    QCOMPARE(result.isValid(), expected.isValid());
    QCOMPARE(result, expected);
}

void TestTJson::parseWithoutOkFlag_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<bool>("expectedValid");

    QTest::newRow("good object without ok pointer gives a value") << QByteArray(R"({"a":1})") << true;
    QTest::newRow("broken object without ok pointer gives an invalid value") << QByteArray(R"({"a":)") << false;
}

void TestTJson::parseWithoutOkFlag()
{
    QFETCH(QByteArray, json);
    QFETCH(bool, expectedValid);

    QCOMPARE(TJson::Parser::parse(json).isValid(), expectedValid);
}

void TestTJson::numberTypes_data()
{
    QTest::addColumn<QByteArray>("json");
    QTest::addColumn<int>("expectedType");
    QTest::addColumn<QVariant>("expected");

    const int longLong = QMetaType::LongLong;
    const int dbl = QMetaType::Double;
    QTest::newRow("small integer is qlonglong") << QByteArray("[42]") << longLong << QVariant(qlonglong(42));
    QTest::newRow("negative integer is qlonglong") << QByteArray("[-7]") << longLong << QVariant(qlonglong(-7));
    QTest::newRow("integer above 2^31 stays exact") << QByteArray("[5000000000]") << longLong << QVariant(qlonglong(5000000000LL));
    QTest::newRow("2^53 + 1 written as an integer stays exact")
        << QByteArray("[9007199254740993]") << longLong << QVariant(qlonglong(9007199254740993LL));
    QTest::newRow("2^53 + 1 written with a fraction passes through a double and loses its last bit")
        << QByteArray("[9007199254740993.0]") << longLong << QVariant(qlonglong(9007199254740992LL));
    QTest::newRow("int64 max stays exact")
        << QByteArray("[9223372036854775807]") << longLong << QVariant(qlonglong(9223372036854775807LL));
    QTest::newRow("int64 min stays exact")
        << QByteArray("[-9223372036854775808]") << longLong << QVariant(qlonglong(-9223372036854775807LL - 1));
    QTest::newRow("integer beyond int64 becomes a double")
        << QByteArray("[9223372036854775808]") << dbl << QVariant(9223372036854775808.0);
    QTest::newRow("integral value with a fraction part is qlonglong") << QByteArray("[2.0]") << longLong << QVariant(qlonglong(2));
    QTest::newRow("integral value in exponent form is qlonglong") << QByteArray("[1e2]") << longLong << QVariant(qlonglong(100));
    QTest::newRow("negative zero is integer zero") << QByteArray("[-0]") << longLong << QVariant(qlonglong(0));
    QTest::newRow("fraction stays a double") << QByteArray("[1.5]") << dbl << QVariant(1.5);
    QTest::newRow("tiny fraction stays a double") << QByteArray("[1e-7]") << dbl << QVariant(1e-7);
}

void TestTJson::numberTypes()
{
    QFETCH(QByteArray, json);
    QFETCH(int, expectedType);
    QFETCH(QVariant, expected);

    const QVariantList list = TJson::Parser::parse(json).toList();
    QCOMPARE(list.size(), 1);
    QCOMPARE(list.first().typeId(), expectedType);
    QCOMPARE(list.first(), expected);
}

void TestTJson::serialize_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("indented");
    QTest::addColumn<QByteArray>("expected");

    QTest::newRow("map members come out in sorted key order, capitals first")
        << QVariant(QVariantMap{{"b", 1}, {"a", 2}, {"B", 3}}) << false << QByteArray(R"({"B":3,"a":2,"b":1})");
    QTest::newRow("list keeps its order") << QVariant(QVariantList{3, 1, 2}) << false << QByteArray("[3,1,2]");
    QTest::newRow("qint64 above 2^32 is written digit for digit")
        << QVariant(QVariantMap{{"n", qint64(5000000000LL)}}) << false << QByteArray(R"({"n":5000000000})");
    QTest::newRow("int64 max is written digit for digit")
        << QVariant(QVariantList{qint64(9223372036854775807LL)}) << false << QByteArray("[9223372036854775807]");
    QTest::newRow("negative qint64 is written digit for digit")
        << QVariant(QVariantList{qint64(-5000000000LL)}) << false << QByteArray("[-5000000000]");
    QTest::newRow("bools, text and fractions")
        << QVariant(QVariantList{true, false, "x", 1.5}) << false << QByteArray(R"([true,false,"x",1.5])");
    QTest::newRow("invalid value inside a map is null")
        << QVariant(QVariantMap{{"n", QVariant()}}) << false << QByteArray(R"({"n":null})");
    QTest::newRow("non-ASCII text is written as UTF-8")
        << QVariant(QVariantList{utf8("\xC3\xA9")}) << false << QByteArray("[\"\xC3\xA9\"]");
    QTest::newRow("empty map is an empty object") << QVariant(QVariantMap()) << false << QByteArray("{}");
    QTest::newRow("empty list is an empty array") << QVariant(QVariantList()) << false << QByteArray("[]");

    QTest::newRow("top-level int is a bare number") << QVariant(5) << false << QByteArray("5");
    QTest::newRow("top-level qint64 is a bare number") << QVariant(qint64(5000000000LL)) << false << QByteArray("5000000000");
    QTest::newRow("top-level negative int is a bare number") << QVariant(-1) << false << QByteArray("-1");
    QTest::newRow("top-level fraction is a bare number") << QVariant(0.25) << false << QByteArray("0.25");
    QTest::newRow("top-level bool is a bare literal") << QVariant(true) << false << QByteArray("true");
    QTest::newRow("top-level string is quoted and escaped") << QVariant("a\"b") << false << QByteArray(R"("a\"b")");
    QTest::newRow("top-level invalid value is null") << QVariant() << false << QByteArray("null");

    QTest::newRow("compact object has no white space")
        << QVariant(QVariantMap{{"a", QVariantList{1, 2}}}) << false << QByteArray(R"({"a":[1,2]})");
    QTest::newRow("indented object has one member per line")
        << QVariant(QVariantMap{{"a", QVariantList{1, 2}}}) << true
        << QByteArray("{\n    \"a\": [\n        1,\n        2\n    ]\n}\n");
    QTest::newRow("indented scalar stays a bare value") << QVariant(5) << true << QByteArray("5");
}

void TestTJson::serialize()
{
    QFETCH(QVariant, value);
    QFETCH(bool, indented);
    QFETCH(QByteArray, expected);

    QCOMPARE(TJson::Serializer::serialize(value, indented), expected);
}

void TestTJson::roundTrip_data()
{
    QTest::addColumn<QVariant>("value");
    QTest::addColumn<bool>("indented");

    const QVariantMap mixed{{"s", utf8("caf\xC3\xA9 \"quoted\"")}, {"i", -3}, {"d", 0.5}, {"b", true}, {"n", QVariant()}};
    const QVariantList bigIntegers{qint64(5000000000LL), qint64(9007199254740993LL), qint64(9223372036854775807LL),
                                   qint64(-9223372036854775807LL - 1)};
    QTest::newRow("map with every value kind") << QVariant(mixed) << false;
    QTest::newRow("map with every value kind, indented") << QVariant(mixed) << true;
    QTest::newRow("list of integers beyond 2^31 and 2^53") << QVariant(bigIntegers) << false;
    QTest::newRow("nested map and list")
        << QVariant(QVariantMap{{"a", QVariantList{QVariantMap{{"b", bigIntegers}}, QVariantList()}}}) << true;
    QTest::newRow("empty map") << QVariant(QVariantMap()) << false;
    QTest::newRow("top-level integer beyond 2^53") << QVariant(qint64(9007199254740993LL)) << false;
    QTest::newRow("top-level string") << QVariant(utf8("\xF0\x9F\x98\x80")) << false;
}

// Comparing the re-serialised text as well catches a big integer that came back as a nearby
// double, which QVariant's numeric comparison would call equal.
void TestTJson::roundTrip()
{
    QFETCH(QVariant, value);
    QFETCH(bool, indented);

    const QByteArray text = TJson::Serializer::serialize(value, indented);
    bool ok = false;
    const QVariant parsed = TJson::Parser::parse(text, &ok, true);
    QVERIFY(ok);
    QCOMPARE(parsed, value);
    QCOMPARE(TJson::Serializer::serialize(parsed, indented), text);
}

QTEST_APPLESS_MAIN(TestTJson)
#include "tst_tjson.moc"
