#include "media_server/MediaPlaybackMetadata.h"

#include "platform/core/TJson.h"

#include <QSignalSpy>
#include <QTest>
#include <QThread>

using MediaV2::MediaPlaybackMetadata;

namespace {

using Field = QPair<QString, QVariant>;

// Every member in declaration order, so one comparison covers the whole record and a
// failure message names the field that differs.
QList<Field> fieldsOf(const MediaPlaybackMetadata& m)
{
    return {{"bitrate", m.bitrate},         {"bufferBytes", m.bufferBytes},
            {"bufferMs", m.bufferMs},       {"startPosition", m.startPosition},
            {"duration", m.duration},       {"cacheKey", m.cacheKey},
            {"url", m.url},                 {"id", m.id},
            {"statsCategory", m.statsCategory}, {"source", m.source},
            {"pauseWhenBuffered", m.pauseWhenBuffered}, {"liveStream", m.liveStream},
            {"valid", m.valid},             {"shouldCache", m.shouldCache},
            {"isExplicit", m.isExplicit}};
}

QString describe(const MediaPlaybackMetadata& m)
{
    QStringList parts;
    for (const Field& field : fieldsOf(m)) {
        const bool isText = field.second.typeId() == QMetaType::QString;
        const QString value = field.second.toString();
        parts << field.first + '=' + (isText ? '"' + value + '"' : value);
    }
    return parts.join(QStringLiteral(", "));
}

QVariant fieldValue(const MediaPlaybackMetadata& m, const QString& name)
{
    for (const Field& field : fieldsOf(m)) {
        if (field.first == name)
            return field.second;
    }
    return QVariant();
}

// What a parsed text with no usable member gives: everything 0/""/false, but marked valid.
// Built field by field so it does not depend on the parser it is compared with.
MediaPlaybackMetadata zeroRecord()
{
    MediaPlaybackMetadata m;
    m.bitrate = 0;
    m.startPosition = 0;
    m.duration = 0;
    m.valid = true;
    return m;
}

MediaPlaybackMetadata fullRecord()
{
    MediaPlaybackMetadata m;
    m.bitrate = 320000;
    m.bufferBytes = 65536;
    m.bufferMs = 4000;
    m.startPosition = 12345;
    m.duration = 215000;
    m.cacheKey = "cache-7";
    m.url = "https://media.example/track/7.ogg?x=1&y=2";
    m.id = "track:7";
    m.statsCategory = 3;
    m.source = "playlist";
    m.pauseWhenBuffered = true;
    m.liveStream = true;
    m.valid = true;
    m.shouldCache = true;
    m.isExplicit = true;
    return m;
}

const char* const kFullRecordJson =
    R"({"bitrate":320000,"buffer-bytes":65536,"buffer-ms":4000,"startposition":12345,)"
    R"("duration":215000,"cachekey":"cache-7","id":"track:7",)"
    R"("url":"https://media.example/track/7.ogg?x=1&y=2","statscategory":3,"source":"playlist",)"
    R"("pauseWhenBuffered":true,"live-stream":true,"should_cache":true,"is_explicit":true})";

const QStringList kFlagKeys{"pauseWhenBuffered", "live-stream", "should_cache", "is_explicit"};

} // namespace

// Stands in for a playback object on another thread: takes a record by a queued call and hands
// it straight back.
class MetadataEcho : public QObject
{
    Q_OBJECT

public slots:
    void take(const MediaV2::MediaPlaybackMetadata& metadata) { emit taken(metadata); }

signals:
    void taken(const MediaV2::MediaPlaybackMetadata& metadata);
};

// Stops and joins on destruction, so a failed check cannot leave a running thread behind.
class StoppingThread : public QThread
{
public:
    ~StoppingThread() override
    {
        quit();
        wait();
    }
};

class TestMediaPlaybackMetadata : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void defaultValues_data();
    void defaultValues();
    void parseReadsEveryKey_data();
    void parseReadsEveryKey();
    void positionsAreParsedAs32Bit_data();
    void positionsAreParsedAs32Bit();
    void flagsConvertByVariantRules_data();
    void flagsConvertByVariantRules();
    void wrongTypedValues_data();
    void wrongTypedValues();
    void malformedTextGivesValidEmptyRecord_data();
    void malformedTextGivesValidEmptyRecord();
    void toJsonText_data();
    void toJsonText();
    void toJsonOmitsValid_data();
    void toJsonOmitsValid();
    void toJsonRoundTrip_data();
    void toJsonRoundTrip();
    void copyKeepsEveryField_data();
    void copyKeepsEveryField();
    void travelsThroughQueuedCall_data();
    void travelsThroughQueuedCall();
    void travelsInsideQVariant_data();
    void travelsInsideQVariant();
};

void TestMediaPlaybackMetadata::initTestCase()
{
    qRegisterMetaType<MediaPlaybackMetadata>("MediaPlaybackMetadata");
    QCOMPARE(QMetaType::fromName("MediaPlaybackMetadata"), QMetaType::fromType<MediaPlaybackMetadata>());
}

void TestMediaPlaybackMetadata::defaultValues_data()
{
    QTest::addColumn<QString>("field");
    QTest::addColumn<QVariant>("expected");

    QTest::newRow("bitrate is unknown (-1)") << "bitrate" << QVariant(-1);
    QTest::newRow("buffer bytes is 0") << "bufferBytes" << QVariant(0);
    QTest::newRow("buffer ms is 0") << "bufferMs" << QVariant(0);
    QTest::newRow("start position is unknown (-1)") << "startPosition" << QVariant(qint64(-1));
    QTest::newRow("duration is unknown (-1)") << "duration" << QVariant(qint64(-1));
    QTest::newRow("cache key is empty") << "cacheKey" << QVariant(QString());
    QTest::newRow("url is empty") << "url" << QVariant(QString());
    QTest::newRow("id is empty") << "id" << QVariant(QString());
    QTest::newRow("stats category is 0") << "statsCategory" << QVariant(0);
    QTest::newRow("source is empty") << "source" << QVariant(QString());
    QTest::newRow("pause when buffered is off") << "pauseWhenBuffered" << QVariant(false);
    QTest::newRow("live stream is off") << "liveStream" << QVariant(false);
    QTest::newRow("a record nobody filled in is not valid") << "valid" << QVariant(false);
    QTest::newRow("should cache is off") << "shouldCache" << QVariant(false);
    QTest::newRow("explicit is off") << "isExplicit" << QVariant(false);
}

void TestMediaPlaybackMetadata::defaultValues()
{
    QFETCH(QString, field);
    QFETCH(QVariant, expected);

    const QVariant value = fieldValue(MediaPlaybackMetadata(), field);
    QCOMPARE(value.typeId(), expected.typeId());
    QCOMPARE(value, expected);
}

void TestMediaPlaybackMetadata::parseReadsEveryKey_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<MediaPlaybackMetadata>("expected");

    QTest::newRow("empty object gives zeros, not the unknown -1, and is valid") << "{}" << zeroRecord();
    QTest::newRow("every key is read into its field") << QString(kFullRecordJson) << fullRecord();

    MediaPlaybackMetadata partial = zeroRecord();
    partial.url = "file:///music/a.flac";
    partial.bufferMs = 1500;
    partial.shouldCache = true;
    QTest::newRow("keys left out fall to zero while given keys are read")
        << R"({"url":"file:///music/a.flac","buffer-ms":1500,"should_cache":true})" << partial;

    MediaPlaybackMetadata negative = zeroRecord();
    negative.bitrate = -1;
    negative.startPosition = -1;
    negative.duration = -1;
    QTest::newRow("explicit -1 values are kept")
        << R"({"bitrate":-1,"startposition":-1,"duration":-1})" << negative;

    MediaPlaybackMetadata unicode = zeroRecord();
    unicode.url = QString::fromUtf8("https://media.example/caf\xC3\xA9");
    unicode.source = QString::fromUtf8("\xE2\x99\xAB");
    QTest::newRow("non-ASCII text and unicode escapes are read")
        << QString::fromUtf8(R"({"url":"https://media.example/caf\u00e9","source":"♫"})") << unicode;

    MediaPlaybackMetadata unknownKeys = zeroRecord();
    unknownKeys.id = "x";
    QTest::newRow("unknown and differently cased keys are ignored")
        << R"({"id":"x","ID":"y","Bitrate":5,"startPosition":9,"extra":{"a":1}})" << unknownKeys;
}

void TestMediaPlaybackMetadata::parseReadsEveryKey()
{
    QFETCH(QString, json);
    QFETCH(MediaPlaybackMetadata, expected);

    QCOMPARE(describe(MediaPlaybackMetadata(json)), describe(expected));
}

void TestMediaPlaybackMetadata::positionsAreParsedAs32Bit_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<qint64>("written");
    QTest::addColumn<bool>("survives");

    for (const QString& key : {QStringLiteral("startposition"), QStringLiteral("duration")}) {
        const QByteArray k = key.toUtf8();
        QTest::addRow("%s at int32 max survives", k.constData()) << key << qint64(2147483647) << true;
        QTest::addRow("%s at int32 min survives", k.constData()) << key << qint64(-2147483647 - 1) << true;
        QTest::addRow("%s of 2^31 does not survive", k.constData()) << key << qint64(2147483648LL) << false;
        QTest::addRow("%s of 5000000000 does not survive", k.constData()) << key << qint64(5000000000LL) << false;
        QTest::addRow("%s below int32 min does not survive", k.constData()) << key << qint64(-2147483649LL) << false;
    }
}

void TestMediaPlaybackMetadata::positionsAreParsedAs32Bit()
{
    QFETCH(QString, key);
    QFETCH(qint64, written);
    QFETCH(bool, survives);

    const MediaPlaybackMetadata m(QStringLiteral("{\"%1\":%2}").arg(key).arg(written));
    const qint64 parsed = key == QLatin1String("duration") ? m.duration : m.startPosition;
    QCOMPARE(parsed == written, survives);
    QVERIFY(parsed >= std::numeric_limits<qint32>::min() && parsed <= std::numeric_limits<qint32>::max());
}

void TestMediaPlaybackMetadata::flagsConvertByVariantRules_data()
{
    QTest::addColumn<QString>("value");
    QTest::addColumn<bool>("expected");

    QTest::newRow("true is on") << "true" << true;
    QTest::newRow("false is off") << "false" << false;
    QTest::newRow("number 1 is on") << "1" << true;
    QTest::newRow("number 0 is off") << "0" << false;
    QTest::newRow("number 2.0 is on") << "2.0" << true;
    QTest::newRow("fraction 0.5 is on") << "0.5" << true;
    QTest::newRow("text \"true\" is on") << "\"true\"" << true;
    QTest::newRow("text \"false\" is off") << "\"false\"" << false;
    QTest::newRow("text \"FALSE\" is off, ignoring case") << "\"FALSE\"" << false;
    QTest::newRow("text \"0\" is off") << "\"0\"" << false;
    QTest::newRow("empty text is off") << "\"\"" << false;
    QTest::newRow("any other text is on") << "\"no\"" << true;
    QTest::newRow("null is off") << "null" << false;
    QTest::newRow("object is off") << "{}" << false;
}

// Every flag key gets the same value, so a flag read from the wrong key or with its own rules
// stands out.
void TestMediaPlaybackMetadata::flagsConvertByVariantRules()
{
    QFETCH(QString, value);
    QFETCH(bool, expected);

    QStringList members;
    for (const QString& key : kFlagKeys)
        members << QStringLiteral("\"%1\":%2").arg(key, value);
    const MediaPlaybackMetadata m('{' + members.join(',') + '}');
    QCOMPARE(m.pauseWhenBuffered, expected);
    QCOMPARE(m.liveStream, expected);
    QCOMPARE(m.shouldCache, expected);
    QCOMPARE(m.isExplicit, expected);
    QVERIFY(m.valid);
}

void TestMediaPlaybackMetadata::wrongTypedValues_data()
{
    QTest::addColumn<QString>("json");
    QTest::addColumn<MediaPlaybackMetadata>("expected");

    QTest::newRow("object as url gives an empty url") << R"({"url":{"a":1}})" << zeroRecord();
    QTest::newRow("array as id gives an empty id") << R"({"id":["x"]})" << zeroRecord();
    QTest::newRow("null as source gives an empty source") << R"({"source":null})" << zeroRecord();
    QTest::newRow("text \"abc\" as bitrate gives 0") << R"({"bitrate":"abc"})" << zeroRecord();
    QTest::newRow("text \"4.5\" as bitrate gives 0") << R"({"bitrate":"4.5"})" << zeroRecord();
    QTest::newRow("object as bitrate gives 0") << R"({"bitrate":{}})" << zeroRecord();

    MediaPlaybackMetadata numericText = zeroRecord();
    numericText.bitrate = 42;
    numericText.startPosition = 100;
    QTest::newRow("numeric text as a number is converted")
        << R"({"bitrate":"42","startposition":" 100 "})" << numericText;

    MediaPlaybackMetadata rounded = zeroRecord();
    rounded.bitrate = 2;
    rounded.bufferMs = -2;
    QTest::newRow("fractions round half away from zero") << R"({"bitrate":1.5,"buffer-ms":-1.5})" << rounded;

    MediaPlaybackMetadata boolNumber = zeroRecord();
    boolNumber.statsCategory = 1;
    QTest::newRow("true as a number is 1") << R"({"statscategory":true})" << boolNumber;

    MediaPlaybackMetadata numberText = zeroRecord();
    numberText.url = "5";
    numberText.cacheKey = "true";
    numberText.id = "1.5";
    QTest::newRow("numbers and bools as text are written out")
        << R"({"url":5,"cachekey":true,"id":1.5})" << numberText;
}

void TestMediaPlaybackMetadata::wrongTypedValues()
{
    QFETCH(QString, json);
    QFETCH(MediaPlaybackMetadata, expected);

    QCOMPARE(describe(MediaPlaybackMetadata(json)), describe(expected));
}

void TestMediaPlaybackMetadata::malformedTextGivesValidEmptyRecord_data()
{
    QTest::addColumn<QString>("json");

    QTest::newRow("plain words") << "not json";
    QTest::newRow("array instead of object") << "[1,2]";
    QTest::newRow("truncated object") << R"({"url":)";
    QTest::newRow("empty text") << "";
    QTest::newRow("lone string") << R"("x")";
    QTest::newRow("lone number") << "5";
    QTest::newRow("object followed by garbage") << R"({"url":"a"} x)";
}

void TestMediaPlaybackMetadata::malformedTextGivesValidEmptyRecord()
{
    QFETCH(QString, json);

    QCOMPARE(describe(MediaPlaybackMetadata(json)), describe(zeroRecord()));
}

void TestMediaPlaybackMetadata::toJsonText_data()
{
    QTest::addColumn<MediaPlaybackMetadata>("record");
    QTest::addColumn<QString>("expected");

    QTest::newRow("default record, members sorted, unknowns as -1")
        << MediaPlaybackMetadata()
        << R"({"bitrate":-1,"buffer-bytes":0,"buffer-ms":0,"cachekey":"","duration":-1,"id":"",)"
           R"("is_explicit":false,"live-stream":false,"pauseWhenBuffered":false,"should_cache":false,)"
           R"("source":"","startposition":-1,"statscategory":0,"url":""})";
    QTest::newRow("full record writes every field under its key")
        << fullRecord()
        << R"({"bitrate":320000,"buffer-bytes":65536,"buffer-ms":4000,"cachekey":"cache-7","duration":215000,)"
           R"("id":"track:7","is_explicit":true,"live-stream":true,"pauseWhenBuffered":true,"should_cache":true,)"
           R"("source":"playlist","startposition":12345,"statscategory":3,)"
           R"("url":"https://media.example/track/7.ogg?x=1&y=2"})";

    MediaPlaybackMetadata wide = zeroRecord();
    wide.startPosition = 5000000000LL;
    wide.duration = 9007199254740993LL;
    QTest::newRow("64-bit positions are written digit for digit")
        << wide
        << R"({"bitrate":0,"buffer-bytes":0,"buffer-ms":0,"cachekey":"","duration":9007199254740993,"id":"",)"
           R"("is_explicit":false,"live-stream":false,"pauseWhenBuffered":false,"should_cache":false,)"
           R"("source":"","startposition":5000000000,"statscategory":0,"url":""})";
}

void TestMediaPlaybackMetadata::toJsonText()
{
    QFETCH(MediaPlaybackMetadata, record);
    QFETCH(QString, expected);

    QCOMPARE(record.toJSON(), expected);
}

void TestMediaPlaybackMetadata::toJsonOmitsValid_data()
{
    QTest::addColumn<MediaPlaybackMetadata>("record");

    QTest::newRow("record that is not valid") << MediaPlaybackMetadata();
    QTest::newRow("record that is valid") << MediaPlaybackMetadata(kFullRecordJson);
}

void TestMediaPlaybackMetadata::toJsonOmitsValid()
{
    QFETCH(MediaPlaybackMetadata, record);

    const QVariantMap written = TJson::Parser::parse(record.toJSON().toUtf8()).toMap();
    QCOMPARE(written.size(), 14);
    QVERIFY(!written.contains(QStringLiteral("valid")));
}

void TestMediaPlaybackMetadata::toJsonRoundTrip_data()
{
    QTest::addColumn<MediaPlaybackMetadata>("record");

    QTest::newRow("full record") << fullRecord();
    QTest::newRow("default record comes back valid with its -1 values") << MediaPlaybackMetadata();

    MediaPlaybackMetadata extremes = zeroRecord();
    extremes.bitrate = std::numeric_limits<qint32>::max();
    extremes.bufferBytes = std::numeric_limits<qint32>::min();
    extremes.startPosition = std::numeric_limits<qint32>::max();
    extremes.duration = std::numeric_limits<qint32>::min();
    extremes.statsCategory = -5;
    QTest::newRow("int32 extremes") << extremes;

    MediaPlaybackMetadata text = zeroRecord();
    text.url = QString::fromUtf8("https://media.example/caf\xC3\xA9?q=\"a\\b\"");
    text.source = QString::fromUtf8("\xF0\x9F\x8E\xB5 line\nbreak");
    text.id = "{\"not\":\"an object\"}";
    text.liveStream = true;
    QTest::newRow("non-ASCII, quotes, backslashes and control characters") << text;
}

void TestMediaPlaybackMetadata::toJsonRoundTrip()
{
    QFETCH(MediaPlaybackMetadata, record);

    MediaPlaybackMetadata expected = record;
    expected.valid = true;
    QCOMPARE(describe(MediaPlaybackMetadata(record.toJSON())), describe(expected));
}

void TestMediaPlaybackMetadata::copyKeepsEveryField_data()
{
    QTest::addColumn<MediaPlaybackMetadata>("record");

    QTest::newRow("parsed record stays valid") << MediaPlaybackMetadata(kFullRecordJson);
    QTest::newRow("default record stays not valid") << MediaPlaybackMetadata();
    QTest::newRow("empty parsed record stays valid") << MediaPlaybackMetadata(QStringLiteral("{}"));
}

void TestMediaPlaybackMetadata::copyKeepsEveryField()
{
    QFETCH(MediaPlaybackMetadata, record);

    const MediaPlaybackMetadata copied(record);
    QCOMPARE(describe(copied), describe(record));

    MediaPlaybackMetadata assigned(QStringLiteral(R"({"url":"other"})"));
    assigned.valid = !record.valid;
    assigned = record;
    QCOMPARE(describe(assigned), describe(record));
}

void TestMediaPlaybackMetadata::travelsThroughQueuedCall_data()
{
    QTest::addColumn<MediaPlaybackMetadata>("record");

    QTest::newRow("default record") << MediaPlaybackMetadata();
    QTest::newRow("parsed full record") << MediaPlaybackMetadata(kFullRecordJson);

    MediaPlaybackMetadata wide = fullRecord();
    wide.startPosition = 5000000000LL;
    wide.url = QString::fromUtf8("https://media.example/caf\xC3\xA9");
    QTest::newRow("64-bit position and non-ASCII url") << wide;
}

// The echo lives on its own thread, so the record is copied into a queued call there and into
// a queued signal back to this thread, as between the playback objects.
void TestMediaPlaybackMetadata::travelsThroughQueuedCall()
{
    QFETCH(MediaPlaybackMetadata, record);

    MetadataEcho remote;   // declared first so that the thread has stopped when it is destroyed
    StoppingThread worker;
    remote.moveToThread(&worker);
    worker.start();
    MetadataEcho local;
    connect(&remote, &MetadataEcho::taken, &local, &MetadataEcho::take, Qt::QueuedConnection);
    QSignalSpy returned(&local, &MetadataEcho::taken);

    QVERIFY(QMetaObject::invokeMethod(&remote, "take", Qt::QueuedConnection,
                                      Q_ARG(MediaV2::MediaPlaybackMetadata, record)));
    QVERIFY(returned.wait());

    QCOMPARE(returned.size(), 1);
    QCOMPARE(describe(returned.first().first().value<MediaPlaybackMetadata>()), describe(record));
}

void TestMediaPlaybackMetadata::travelsInsideQVariant_data()
{
    travelsThroughQueuedCall_data();
}

void TestMediaPlaybackMetadata::travelsInsideQVariant()
{
    QFETCH(MediaPlaybackMetadata, record);

    const QVariant carried = QVariant::fromValue(record);
    QCOMPARE(carried.metaType(), QMetaType::fromType<MediaPlaybackMetadata>());
    QVERIFY(carried.canConvert<MediaPlaybackMetadata>());
    QCOMPARE(describe(carried.value<MediaPlaybackMetadata>()), describe(record));
}

QTEST_GUILESS_MAIN(TestMediaPlaybackMetadata)
#include "tst_media_playback_metadata.moc"
