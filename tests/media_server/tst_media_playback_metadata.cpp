#include "media_server/MediaPlaybackMetadata.h"

#include <QTest>

using MediaV2::MediaPlaybackMetadata;

namespace {

// Every member in declaration order, so one comparison covers the whole record.
QVariantList fields(const MediaPlaybackMetadata& m)
{
    return {m.bitrate, m.bufferBytes, m.bufferMs, m.startPosition, m.duration, m.cacheKey, m.url, m.id, m.statsCategory,
            m.source, m.pauseWhenBuffered, m.liveStream, m.valid, m.shouldCache, m.isExplicit};
}

// What text with no usable member parses to: all 0/""/false, but valid; built without the parser.
MediaPlaybackMetadata zeroRecord()
{
    MediaPlaybackMetadata m;
    m.bitrate = 0, m.startPosition = 0, m.duration = 0;
    m.valid = true;
    return m;
}

MediaPlaybackMetadata fullRecord()
{
    MediaPlaybackMetadata m;
    m.bitrate = 320000, m.bufferBytes = 65536, m.bufferMs = 4000;
    m.startPosition = 12345, m.duration = 215000;
    m.cacheKey = "cache-7", m.id = "track:7", m.source = "playlist", m.statsCategory = 3;
    m.url = QString::fromUtf8("https://media.example/caf\xC3\xA9/7.ogg?x=1&y=2");
    m.pauseWhenBuffered = m.liveStream = m.valid = m.shouldCache = m.isExplicit = true;
    return m;
}

} // namespace

class TestMediaPlaybackMetadata : public QObject
{
    Q_OBJECT

private slots:
    void parse_data()
    {
        QTest::addColumn<QString>("json");
        QTest::addColumn<MediaPlaybackMetadata>("expected");
        QTest::newRow("empty object gives zeros, not the unknown -1, and is valid") << "{}" << zeroRecord();
        MediaPlaybackMetadata onlyId = zeroRecord();
        onlyId.id = "x";
        QTest::newRow("unknown and differently cased keys are ignored")
            << "{\"id\":\"x\",\"ID\":\"y\",\"Bitrate\":5,\"startPosition\":9,\"extra\":{\"a\":1}}" << onlyId;
        QTest::newRow("object as url and non-numeric text as bitrate give empty and 0")
            << "{\"url\":{\"a\":1},\"bitrate\":\"abc\"}" << zeroRecord();
        MediaPlaybackMetadata flags = zeroRecord();
        flags.liveStream = flags.shouldCache = true;
        QTest::newRow("flags: text \"false\" and \"0\" are off, number 1 and other text are on")
            << "{\"pauseWhenBuffered\":\"false\",\"live-stream\":1,\"should_cache\":\"no\",\"is_explicit\":\"0\"}" << flags;
        QTest::newRow("malformed text gives a valid record with all else zero") << "{\"url\":\"a\"" << zeroRecord();
    }

    void parse()
    {
        QFETCH(QString, json);
        QFETCH(MediaPlaybackMetadata, expected);
        QCOMPARE(fields(MediaPlaybackMetadata(json)), fields(expected));
    }

    void positionsAreParsedAs32Bit_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<qint64>("written");
        QTest::addColumn<bool>("survives");
        QTest::newRow("startposition at int32 max survives") << "startposition" << qint64(2147483647) << true;
        QTest::newRow("startposition of 2^31 does not survive") << "startposition" << qint64(2147483648LL) << false;
        QTest::newRow("duration below int32 min does not survive") << "duration" << qint64(-2147483649LL) << false;
    }

    void positionsAreParsedAs32Bit()
    {
        QFETCH(QString, key);
        QFETCH(qint64, written);
        QFETCH(bool, survives);
        const MediaPlaybackMetadata m(QStringLiteral("{\"%1\":%2}").arg(key).arg(written));
        const qint64 parsed = key == QLatin1String("duration") ? m.duration : m.startPosition;
        QCOMPARE(parsed == written, survives);
        QVERIFY(parsed >= std::numeric_limits<qint32>::min() && parsed <= std::numeric_limits<qint32>::max());
    }

    // A record nobody filled in writes -1 for the unknowns and leaves out valid, which is false.
    // 64-bit positions, which the server writes back from the playback engine, come out digit for
    // digit. Every key written is read back into its field, non-ASCII text included.
    void toJson()
    {
        QVERIFY(!MediaPlaybackMetadata().valid);
        QCOMPARE(MediaPlaybackMetadata().toJSON(),
                 QStringLiteral("{\"bitrate\":-1,\"buffer-bytes\":0,\"buffer-ms\":0,\"cachekey\":\"\",\"duration\":-1,\"id\":\"\","
                                "\"is_explicit\":false,\"live-stream\":false,\"pauseWhenBuffered\":false,\"should_cache\":false,"
                                "\"source\":\"\",\"startposition\":-1,\"statscategory\":0,\"url\":\"\"}"));
        MediaPlaybackMetadata wide;
        wide.startPosition = 5000000000LL;
        QVERIFY2(wide.toJSON().contains(QLatin1String("\"startposition\":5000000000,")), qPrintable(wide.toJSON()));
        QCOMPARE(fields(MediaPlaybackMetadata(fullRecord().toJSON())), fields(fullRecord()));
    }
};

QTEST_GUILESS_MAIN(TestMediaPlaybackMetadata)
#include "tst_media_playback_metadata.moc"
