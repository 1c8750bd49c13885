// Configuration: the texts each type accepts, the settings file and command line, a key two
// objects share, the settings file's failure modes, and reads from other threads. That --set
// wins over the file and the file over the default is also proved by the start-up suite.

#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigIntValue.h"
#include "platform/config/ConfigRealValue.h"
#include "platform/config/ConfigStore.h"
#include "platform/config/ConfigStringValue.h"
#include "platform/config/ConfigUnsignedIntValue.h"
#include "platform/core/RuntimeEnv.h"
#include "platform/io/StorageUtils.h"
#include "tests/support/LogCapture.h"

#include <QDir>
#include <QTemporaryDir>
#include <QtTest>

#include <atomic>
#include <thread>

namespace {

ConfigIntValue sInt("test/int", 7);
ConfigUnsignedIntValue sUnsigned("test/unsigned", 8u);
ConfigBoolValue sBool("test/bool", true);
ConfigRealValue sReal("test/real", 0.5);
ConfigStringValue sString("test/string", QStringLiteral("plain"));
ConfigStringValue sQuoted("test/quoted", QString());
// One key carried by two objects, of two types: a text sets both and must satisfy both.
ConfigIntValue sMixedInt("test/mixed", 1);
ConfigStringValue sMixedString("test/mixed", QStringLiteral("one"));

// The typed value the object of the key reads.
QVariant typedValue(const QString& key)
{
    return key == u"test/int" ? QVariant(sInt.value()) : key == u"test/unsigned" ? QVariant(sUnsigned.value())
         : key == u"test/bool" ? QVariant(sBool.value()) : key == u"test/real" ? QVariant(sReal.value()) : QVariant(sString.value());
}

QString writeFile(const QTemporaryDir& dir, const QByteArray& content)
{
    QFile file(dir.filePath(QStringLiteral("settings.conf")));
    return file.open(QIODevice::WriteOnly) && file.write(content) == content.size() ? file.fileName() : QString();
}

// RuntimeEnv takes a C argument vector; this keeps the strings alive for the call.
struct Argv
{
    explicit Argv(const QStringList& args)
    {
        for (const QString& arg : QStringList{"cabin-media-server"} + args)
            storage.append(arg.toLocal8Bit());
        for (const QByteArray& item : storage)
            pointers.append(item.constData());
    }
    int argc() const { return int(pointers.size()); }
    const char* const* argv() const { return pointers.constData(); }

    QList<QByteArray> storage;
    QList<const char*> pointers;
};

} // namespace

class TestConfig : public QObject
{
    Q_OBJECT
private slots:
    void init() { ConfigStore::instance()->clearOverrides(); }
    void cleanupTestCase() { ConfigStore::instance()->clearOverrides(); }

    void typedTextIsAcceptedOrRefused_data()
    {
        QTest::addColumn<QString>("key");
        QTest::addColumn<QString>("text");
        QTest::addColumn<QVariant>("expected");   // what the object then reads; null: refused
        const QVariant refused;
        QTest::newRow("int negative with spaces") << "test/int" << " -12 " << QVariant(-12);
        QTest::newRow("int fraction refused") << "test/int" << "4.5" << refused;
        QTest::newRow("int beyond 32 bits refused") << "test/int" << "4294967296" << refused;
        QTest::newRow("unsigned max") << "test/unsigned" << "4294967295" << QVariant(4294967295u);
        QTest::newRow("unsigned negative refused") << "test/unsigned" << "-1" << refused;
        QTest::newRow("bool OFF any case") << "test/bool" << "OFF" << QVariant(false);
        QTest::newRow("bool maybe refused") << "test/bool" << "maybe" << refused;
        QTest::newRow("real fraction") << "test/real" << "2.75" << QVariant(2.75);
        QTest::newRow("real nan refused") << "test/real" << "nan" << refused;
        QTest::newRow("string anything") << "test/string" << "a b=c" << QVariant(QStringLiteral("a b=c"));
    }
    void typedTextIsAcceptedOrRefused()
    {
        QFETCH(QString, key);
        QFETCH(QString, text);
        QFETCH(QVariant, expected);
        const QVariant before = typedValue(key);
        QString error;
        QCOMPARE(ConfigStore::instance()->set(key, text, &error), expected.isValid());
        // The refusal's wording is proved where a user reads it: the server's command line.
        QCOMPARE(error.isEmpty(), expected.isValid());
        if (!expected.isValid()) {
            QCOMPARE(typedValue(key), before);
            return;
        }
        QCOMPARE(typedValue(key), expected);
        ConfigStore::instance()->unset(key);
        QCOMPARE(typedValue(key), before);
    }

    void sharedKeySetsEveryObjectAndNeedsTextAllAccept()
    {
        QString error;
        QVERIFY(!ConfigStore::instance()->set(QStringLiteral("test/mixed"), QStringLiteral("two"), &error));
        QVERIFY2(error.contains(QLatin1String("expects int")), qPrintable(error));
        QCOMPARE(sMixedString.value(), QStringLiteral("one"));
        QVERIFY(ConfigStore::instance()->set(QStringLiteral("test/mixed"), QStringLiteral("2"), nullptr));
        QCOMPARE(sMixedInt.value(), 2);
        QCOMPARE(sMixedString.value(), QStringLiteral("2"));
    }

    // The command line as the server gets it; %1 is the settings file's path.
    void commandLineAndFileApplyInOrder_data()
    {
        QTest::addColumn<QByteArray>("fileContent");
        QTest::addColumn<QStringList>("args");
        QTest::addColumn<QString>("key");
        QTest::addColumn<QVariant>("expected");
        QTest::addColumn<QString>("error");   // empty: accepted
        const QByteArray file("[test]\nint=11\n");
        QTest::newRow("the file --config names applies") << file << QStringList{"--config=%1"} << "test/int" << QVariant(11) << "";
        QTest::newRow("--set over the file, the later --set winning")
            << file << QStringList{"--config", "%1", "--set=test/int=1", "--set", "test/int=2"} << "test/int" << QVariant(2) << "";
        QTest::newRow("a value may hold =") << file << QStringList{"--config", "%1", "--set=test/string=a=b"}
                                            << "test/string" << QVariant(QStringLiteral("a=b")) << "";
        QTest::newRow("--set without equals applies nothing") << file << QStringList{"--config", "%1", "--set", "test/int=3", "--set", "test/int"}
                                                              << "test/int" << QVariant(7) << "--set expects KEY=VALUE, got \"test/int\"";
    }
    void commandLineAndFileApplyInOrder()
    {
        QFETCH(QByteArray, fileContent);
        QFETCH(QStringList, args);
        QFETCH(QString, key);
        QFETCH(QVariant, expected);
        QFETCH(QString, error);
        QTemporaryDir dir;
        const QString path = writeFile(dir, fileContent);
        Argv argv(args.replaceInStrings(QStringLiteral("%1"), path));
        QCOMPARE(RuntimeEnv::instance()->setFromArgs(argv.argc(), argv.argv()), error.isEmpty());
        QCOMPARE(RuntimeEnv::instance()->error(), error);
        if (error.isEmpty())
            QCOMPARE(RuntimeEnv::instance()->settingsFile(), path);
        QCOMPARE(typedValue(key), expected);
    }

    // A malformed or unreadable file applies nothing; in a readable one a bad value or an unknown
    // key is skipped with a line each, the rest applies, and a value with commas is kept whole.
    void settingsFileFailures_data()
    {
        QTest::addColumn<QByteArray>("content");   // null: the path is a folder
        QTest::addColumn<QStringList>("logged");   // one line containing each; %1 is the path
        QTest::newRow("line without key") << QByteArray("[test]\nint=99\njust words\n")
                                          << QStringList{"%1, line 3: neither [section], key=value nor a ; comment; using the defaults"};
        QTest::newRow("not a file") << QByteArray() << QStringList{"%1 is not readable: not a file; using the defaults"};
        QTest::newRow("bad lines only are skipped")
            << QByteArray("[test]\nint=abc\nbool=false\nunknown_key=1\nstring=audioconvert ! audio/x-raw,rate=44100 ! fakesink\n")
            << QStringList{"\"test/int\" expects int, got \"abc\"; keeping the default", "unknown configuration key \"test/unknown_key\""};
        QTest::newRow("a semicolon cutting a value is named, a quoted one or a comment line is not")
            << QByteArray("[test]\nbool=false\nstring=audioconvert ! audio/x-raw,rate=44100 ! fakesink\n; a comment\nunsigned=5;6\n"
                          "quoted=\"x;y\"\n")
            << QStringList{"the value of test/unsigned holds a \";\", which starts a comment"};
    }
    void settingsFileFailures()
    {
        QFETCH(QByteArray, content);
        QFETCH(QStringList, logged);
        QTemporaryDir dir;
        const QString path = content.isNull() ? dir.path() : writeFile(dir, content);
        LogCapture log;
        const bool applies = content.contains("bool=false");
        QCOMPARE(ConfigStore::instance()->loadSettingsFile(path), applies);
        QCOMPARE(sInt.value(), 7);
        QCOMPARE(sBool.value(), !applies);
        QCOMPARE(sString.value(), applies ? QStringLiteral("audioconvert ! audio/x-raw,rate=44100 ! fakesink") : QStringLiteral("plain"));
        QCOMPARE(log.lines().size(), logged.size());
        for (const QString& fragment : logged)
            QVERIFY2(log.hasLineContaining(fragment.arg(path)), qPrintable(log.lines().join(QLatin1Char('\n'))));
    }

    void readsFromOtherThreadsSeeWholeValues()
    {
        const QString replacement = QStringLiteral("a fairly long replacement text");
        std::atomic<bool> stop{false};
        std::atomic<int> badReads{0}, reads{0};
        auto reader = [&] {
            for (; !stop; ++reads) {
                const QString value = sString.value();
                badReads += value != QLatin1String("plain") && value != replacement;
            }
        };
        std::thread first(reader), second(reader);
        for (int i = 0; i < 2000; ++i) {
            ConfigStore::instance()->set(QStringLiteral("test/string"), replacement, nullptr);
            ConfigStore::instance()->unset(QStringLiteral("test/string"));
        }
        while (reads < 1000)
            std::this_thread::yield();
        stop = true;
        first.join();
        second.join();
        QCOMPARE(badReads.load(), 0);
    }

    void storageFoldersFollowKeysAndAreCreated()
    {
        QTemporaryDir dir;
        const QString media = dir.filePath(QStringLiteral("deep/media"));
        QVERIFY(ConfigStore::instance()->set(QStringLiteral("storage/media_cache_folder"), media, nullptr));
        QVERIFY(!QDir(media).exists());
        QCOMPARE(StorageUtils::mediaCacheFolder(), media);
        QVERIFY(QDir(media).exists());
        QVERIFY(StorageUtils::cacheRoot().endsWith(QLatin1String("/CabinMediaServer2")));
        qputenv("CACHE_DIRECTORY", (dir.path() + QStringLiteral("/unit:/second")).toLocal8Bit());
        QCOMPARE(StorageUtils::cacheRoot(), dir.path() + QStringLiteral("/unit"));
        qunsetenv("CACHE_DIRECTORY");
    }
};

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
