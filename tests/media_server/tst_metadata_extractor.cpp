// The in-stream title extractor: whatever the chunk boundaries, exactly the audio bytes come
// out and exactly the blocks' pairs, parsed by the simple rules stations rely on.

#include "media_server/MetadataExtractor.h"
#include "platform/config/ConfigStore.h"
#include "tests/support/LogCapture.h"

#include <QRandomGenerator>
#include <algorithm>
#include <QtTest>

using MediaV2::MetadataExtractor;

namespace {

// A length byte and the text NUL-padded to a multiple of 16.
QByteArray block(const QByteArray& text)
{
    QByteArray padded = text + QByteArray((16 - text.size() % 16) % 16, '\0');
    return char(padded.size() / 16) + padded;
}

// "key=value" of every pair, sorted, so a hash compares as a list.
QStringList pairs(const QHash<QString, QString>& hash)
{
    QStringList list;
    for (auto it = hash.cbegin(); it != hash.cend(); ++it)
        list.append(it.key() + QLatin1Char('=') + it.value());
    list.sort();
    return list;
}

} // namespace

class TestMetadataExtractor : public QObject
{
    Q_OBJECT

private slots:
    void cleanup() { ConfigStore::instance()->clearOverrides(); }

    void extractsBlocksAcrossChunks_data()
    {
        QTest::addColumn<int>("interval");
        QTest::addColumn<QByteArrayList>("chunks");
        QTest::addColumn<QByteArray>("audio");
        QTest::addColumn<QStringList>("found");
        const QByteArray a(8, 'a'), b(8, 'b');
        const QByteArray title = block("StreamTitle='Test';");
        const QByteArray stream = a + title + b;
        // A chunk cut right before a length byte is the random test's; its short blocks are
        // seldom cut inside, so that case stays here.
        QTest::newRow("a block split across two chunks") << 8 << QByteArrayList{stream.left(20), stream.mid(20)} << a + b << QStringList{"StreamTitle=Test"};
        QTest::newRow("the length byte last in its chunk") << 8 << QByteArrayList{stream.left(9), stream.mid(9)} << a + b << QStringList{"StreamTitle=Test"};
        QTest::newRow("a length byte of 0 is one byte and no block") << 8 << QByteArrayList{a + char(0) + b} << a + b << QStringList{};
        QTest::newRow("interval 0 leaves every byte in place") << 0 << QByteArrayList{stream} << stream << QStringList{};
    }
    void extractsBlocksAcrossChunks()
    {
        QFETCH(int, interval);
        QFETCH(QByteArrayList, chunks);
        QFETCH(QByteArray, audio);
        QFETCH(QStringList, found);
        MetadataExtractor extractor;
        if (interval > 0)
            extractor.setMetadataInterval(interval);
        QByteArray kept;
        QHash<QString, QString> all;
        for (QByteArray chunk : chunks) {
            all.insert(extractor.extract(chunk));
            kept += chunk;
        }
        QVERIFY(kept == audio);
        QCOMPARE(pairs(all), found);
        QCOMPARE(extractor.audioBytes(), quint64(interval > 0 ? audio.size() : 0));
    }

    void parsesBlocksSimply_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QStringList>("found");
        QTest::newRow("two pairs") << QByteArray("StreamTitle='A';StreamUrl='u';") << QStringList{"StreamTitle=A", "StreamUrl=u"};
        QTest::newRow("a quoted empty value is empty") << QByteArray("StreamTitle='';") << QStringList{"StreamTitle="};
        QTest::newRow("an unquoted value as it stands") << QByteArray("StreamTitle=Song ;") << QStringList{"StreamTitle=Song "};
        QTest::newRow("an equals sign in a quoted value drops that pair") << QByteArray("StreamTitle='a=b';StreamUrl='u';") << QStringList{"StreamUrl=u"};
        QTest::newRow("a semicolon in a quoted value cuts it, keeping the quote") << QByteArray("StreamTitle='a;b';") << QStringList{"StreamTitle='a"};
        QTest::newRow("text after a NUL byte is padding") << QByteArray("StreamTitle='x';\0StreamUrl='u';", 31) << QStringList{"StreamTitle=x"};
    }
    void parsesBlocksSimply()
    {
        QFETCH(QByteArray, text);
        QFETCH(QStringList, found);
        QHash<QString, QString> out;
        MetadataExtractor::convertMetadataBlock(text, out);
        QCOMPARE(pairs(out), found);
    }

    void decodesTitlesAsConfigured_data()
    {
        QTest::addColumn<QString>("charset");
        QTest::addColumn<QByteArray>("bytes");
        QTest::addColumn<QString>("title");
        const QByteArray utf8("StreamTitle='Caf\xc3\xa9';");
        const QByteArray latin1("StreamTitle='Caf\xe9';");
        const QString cafe = QStringLiteral("Caf") + QChar(0xe9);
        QTest::newRow("latin1 by default: UTF-8 bytes come out as two characters") << QString() << utf8 << QStringLiteral("Caf") + QChar(0xc3) + QChar(0xa9);
        QTest::newRow("utf8") << "utf8" << utf8 << cafe;
        QTest::newRow("auto, valid UTF-8") << "auto" << utf8 << cafe;
        QTest::newRow("auto, Latin-1 bytes") << "auto" << latin1 << cafe;
    }
    void decodesTitlesAsConfigured()
    {
        QFETCH(QString, charset);
        QFETCH(QByteArray, bytes);
        QFETCH(QString, title);
        QString error;
        if (!charset.isEmpty())
            QVERIFY2(ConfigStore::instance()->set(QStringLiteral("media_fifo/title_charset"), charset, &error), qPrintable(error));
        QHash<QString, QString> out;
        MetadataExtractor::convertMetadataBlock(bytes, out);
        QCOMPARE(out.value(QStringLiteral("StreamTitle")), title);
    }

    // Random audio and blocks at a random interval, cut into random chunks of 1 byte to 64 KiB:
    // exactly the audio and exactly every block's pair come out, for every seed. Each block has
    // its own key, since one chunk may complete several blocks.
    void randomStreamsComeOutAsTheirAudioAndBlocks()
    {
        for (quint32 seed = 1; seed <= 200; ++seed) {
            QRandomGenerator random(seed);
            const int interval = random.bounded(1, 20000);
            QByteArray audio, stream;
            QList<int> lengthBytes;   // where each block starts: a third of the chunks end right there
            QHash<QString, QString> sent;
            for (int i = 0, blocks = random.bounded(1, 12); i < blocks; ++i) {
                QByteArray part(interval, '\0');
                for (char& byte : part)
                    byte = char(random.bounded(256));
                const QString key = QStringLiteral("Block%1").arg(i), title = QStringLiteral("Song %1").arg(random.generate());
                audio += part;
                lengthBytes.append(stream.size() + part.size());
                stream += part + block((key + QStringLiteral("='") + title + QStringLiteral("';")).toLatin1());
                sent.insert(key, title);
            }
            MetadataExtractor extractor;
            extractor.setMetadataInterval(interval);
            QByteArray kept;
            QHash<QString, QString> found;
            for (int at = 0; at < stream.size();) {
                const auto next = std::upper_bound(lengthBytes.cbegin(), lengthBytes.cend(), at);
                const bool toLengthByte = next != lengthBytes.cend() && random.bounded(3) == 0;
                QByteArray chunk = stream.mid(at, toLengthByte ? *next - at : random.bounded(1, 65537));
                at += chunk.size();
                found.insert(extractor.extract(chunk));
                kept += chunk;
            }
            QVERIFY2(kept == audio, qPrintable(QStringLiteral("seed %1").arg(seed)));
            QVERIFY2(found == sent, qPrintable(QStringLiteral("seed %1").arg(seed)));
        }
    }

    void refusesAnInvalidInterval()
    {
        LogCapture log;
        MetadataExtractor extractor;
        extractor.setMetadataInterval(8);
        extractor.setMetadataInterval(0);
        QCOMPARE(log.assertMessages(), QStringList{"setMetadataInterval: invalid interval 0"});
        QByteArray chunk = QByteArray(8, 'a') + char(0) + QByteArray(8, 'b');
        extractor.extract(chunk);
        QVERIFY(chunk == QByteArray(8, 'a') + QByteArray(8, 'b'));   // the old interval still holds
    }
};

QTEST_GUILESS_MAIN(TestMetadataExtractor)
#include "tst_metadata_extractor.moc"
