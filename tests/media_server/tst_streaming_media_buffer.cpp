// The download buffer's files: every cache key maps to safe names, and an info file is trusted
// only when it describes this key's data file completely and sanely.

#include "media_server/MediaCacheFiles.h"
#include "media_server/StreamingMediaBufferInfo.h"
#include "platform/config/ConfigStore.h"

#include <QFileInfo>
#include <QJsonDocument>
#include <QTemporaryDir>
#include <QtTest>

using MediaV2::StreamingMediaBufferInfo;
namespace MediaCacheFiles = MediaV2::MediaCacheFiles;

class TestStreamingMediaBuffer : public QObject
{
    Q_OBJECT

    QTemporaryDir mDir;

private slots:
    void initTestCase()
    {
        QString error;
        QVERIFY2(ConfigStore::instance()->set(QStringLiteral("storage/media_cache_folder"), mDir.path(), &error),
                 qPrintable(error));
    }
    void cleanupTestCase() { ConfigStore::instance()->clearOverrides(); }

    void cacheKeysMapToSafeNames_data()
    {
        QTest::addColumn<QString>("key");
        QTest::newRow("slashes and dots") << "../../etc/passwd";
        QTest::newRow("10 kB of text") << QString(10240, QLatin1Char('k'));
        QTest::newRow("non-ASCII") << QString::fromUtf8("Ölçü/音楽 🎵");
    }
    void cacheKeysMapToSafeNames()
    {
        QFETCH(QString, key);
        const QString hash = MediaCacheFiles::hashForKey(key);
        QVERIFY2(QRegularExpression(QStringLiteral("^[0-9a-f]{32}$")).match(hash).hasMatch(), qPrintable(hash));
        QCOMPARE(MediaCacheFiles::cacheFileName(key), mDir.path() + QLatin1Char('/') + hash + QStringLiteral("_cache"));
        QCOMPARE(MediaCacheFiles::infoFileName(key), mDir.path() + QLatin1Char('/') + hash + QStringLiteral("_info.txt"));
        QVERIFY(MediaCacheFiles::hashForKey(key + QLatin1Char('x')) != hash);
    }

    // What a later start makes of the info file it finds.
    void infoFilesAreTrustedOnlyWhenSound_data()
    {
        QTest::addColumn<QByteArray>("json");
        QTest::addColumn<int>("read");   // StreamingMediaBufferInfo::Read
        const auto valid = int(StreamingMediaBufferInfo::Read::Valid);
        const auto damaged = int(StreamingMediaBufferInfo::Read::Damaged);
        QTest::newRow("a partial download") << QByteArray("{\"complete\":false,\"written\":500,\"length\":1000,\"cachekey\":\"k\",\"url\":\"http://h/a\"}") << valid;
        QTest::newRow("a complete download") << QByteArray("{\"complete\":true,\"written\":1000,\"length\":1000,\"cachekey\":\"k\",\"url\":\"http://h/a\"}") << valid;
        QTest::newRow("cut short by a power cut") << QByteArray("{\"complete\":false,\"written\":500,\"len") << damaged;
        QTest::newRow("not JSON") << QByteArray("written=500") << damaged;
        QTest::newRow("a JSON array") << QByteArray("[1,2]") << damaged;
        QTest::newRow("a member missing") << QByteArray("{\"complete\":false,\"written\":500,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("a negative count") << QByteArray("{\"complete\":false,\"written\":-1,\"length\":1000,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("more written than the length") << QByteArray("{\"complete\":false,\"written\":1001,\"length\":1000,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("complete with bytes missing") << QByteArray("{\"complete\":true,\"written\":999,\"length\":1000,\"cachekey\":\"k\",\"url\":\"u\"}") << damaged;
        QTest::newRow("another cache key") << QByteArray("{\"complete\":true,\"written\":1000,\"length\":1000,\"cachekey\":\"other\",\"url\":\"u\"}") << damaged;
    }
    void infoFilesAreTrustedOnlyWhenSound()
    {
        QFETCH(QByteArray, json);
        QFETCH(int, read);
        const QString path = mDir.filePath(QStringLiteral("info.txt"));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(json);
        file.close();
        StreamingMediaBufferInfo info;
        QString problem;
        QCOMPARE(int(StreamingMediaBufferInfo::read(path, QStringLiteral("k"), &info, &problem)), read);
        QCOMPARE(problem.isEmpty(), read == int(StreamingMediaBufferInfo::Read::Valid));
        if (read == int(StreamingMediaBufferInfo::Read::Valid)) {
            QCOMPARE(QJsonDocument::fromJson(info.toJson()), QJsonDocument::fromJson(json));   // reads back as written
            return;
        }
        QCOMPARE(info.written, qint64(0));   // nothing of a damaged file is taken
    }

    void aMissingInfoFileIsAbsent()
    {
        StreamingMediaBufferInfo info;
        QString problem;
        QCOMPARE(StreamingMediaBufferInfo::read(mDir.filePath(QStringLiteral("none")), QStringLiteral("k"), &info, &problem),
                 StreamingMediaBufferInfo::Read::Absent);
    }
};

QTEST_GUILESS_MAIN(TestStreamingMediaBuffer)
#include "tst_streaming_media_buffer.moc"
