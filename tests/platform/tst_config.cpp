// Configuration: the texts each type accepts, the layers (default, settings file, command
// line), the shared key, the settings file's failure modes, and reads from other threads.

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
// Two objects on one key with different defaults, as the stream cache's database and folder.
ConfigStringValue sSharedA("test/shared", QStringLiteral("default-a"));
ConfigStringValue sSharedB("test/shared", QStringLiteral("default-b"));
// One key carried by objects of two types: a text must satisfy both.
ConfigIntValue sMixedInt("test/mixed", 1);
ConfigStringValue sMixedString("test/mixed", QStringLiteral("one"));

const ConfigValue* valueForKey(const QString& key)
{
    for (const ConfigValue* value : ConfigStore::instance()->values())
        if (value->key() == key)
            return value;
    return nullptr;
}

QString writeFile(const QTemporaryDir& dir, const QString& name, const QByteArray& content)
{
    const QString path = dir.filePath(name);
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly))
        return QString();
    file.write(content);
    return path;
}

// RuntimeEnv takes a C argument vector; this keeps the strings alive for the call.
struct Argv
{
    explicit Argv(const QStringList& args)
    {
        storage.append("cabin-media-server");
        for (const QString& arg : args)
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

    void typedTextIsAcceptedOrRefused_data();
    void typedTextIsAcceptedOrRefused();
    void overrideIsReadBack_data();
    void overrideIsReadBack();
    void sharedKeySetsBothObjects();
    void sharedKeyOfTwoTypesNeedsTextBothAccept();
    void layersApplyInOrder_data();
    void layersApplyInOrder();
    void badSettingsFileKeepsDefaults_data();
    void badSettingsFileKeepsDefaults();
    void settingsFileSkipsOnlyBadLines();
    void commaInSettingsValueIsKept();
    void argsAreParsed_data();
    void argsAreParsed();
    void readsFromOtherThreadsSeeWholeValues();
    void storageFoldersFollowKeysAndAreCreated();
};

void TestConfig::typedTextIsAcceptedOrRefused_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("text");
    QTest::addColumn<bool>("accepted");

    QTest::newRow("int decimal") << "test/int" << "42" << true;
    QTest::newRow("int negative with spaces") << "test/int" << " -12 " << true;
    QTest::newRow("int fraction refused") << "test/int" << "4.5" << false;
    QTest::newRow("int word refused") << "test/int" << "many" << false;
    QTest::newRow("int beyond 32 bits refused") << "test/int" << "4294967296" << false;
    QTest::newRow("unsigned max") << "test/unsigned" << "4294967295" << true;
    QTest::newRow("unsigned negative refused") << "test/unsigned" << "-1" << false;
    QTest::newRow("bool true") << "test/bool" << "true" << true;
    QTest::newRow("bool OFF any case") << "test/bool" << "OFF" << true;
    QTest::newRow("bool maybe refused") << "test/bool" << "maybe" << false;
    QTest::newRow("bool 2 refused") << "test/bool" << "2" << false;
    QTest::newRow("real fraction") << "test/real" << "0.25" << true;
    QTest::newRow("real nan refused") << "test/real" << "nan" << false;
    QTest::newRow("real inf refused") << "test/real" << "inf" << false;
    QTest::newRow("string anything") << "test/string" << "a b=c" << true;
}

void TestConfig::typedTextIsAcceptedOrRefused()
{
    QFETCH(QString, key);
    QFETCH(QString, text);
    QFETCH(bool, accepted);
    QString error;
    QCOMPARE(ConfigStore::instance()->set(key, text, &error), accepted);
    QCOMPARE(error.isEmpty(), accepted);
    QString stored;
    QCOMPARE(ConfigStore::instance()->lookup(key, &stored), accepted);
    if (!accepted)
        QCOMPARE(error, QStringLiteral("configuration key \"%1\" expects %2, got \"%3\"")
                            .arg(key, QString::fromLatin1(valueForKey(key)->typeName()), text));
}

void TestConfig::overrideIsReadBack_data()
{
    QTest::addColumn<QString>("key");
    QTest::addColumn<QString>("text");
    QTest::addColumn<QVariant>("expected");

    QTest::newRow("int") << "test/int" << " 42" << QVariant(42);
    QTest::newRow("unsigned") << "test/unsigned" << "4000000000" << QVariant(4000000000u);
    QTest::newRow("bool off") << "test/bool" << "off" << QVariant(false);
    QTest::newRow("real") << "test/real" << "2.75" << QVariant(2.75);
    QTest::newRow("string") << "test/string" << "changed" << QVariant(QStringLiteral("changed"));
}

void TestConfig::overrideIsReadBack()
{
    QFETCH(QString, key);
    QFETCH(QString, text);
    QFETCH(QVariant, expected);
    QVERIFY(ConfigStore::instance()->set(key, text, nullptr));
    QVariant actual;
    if (key == QLatin1String("test/int"))
        actual = sInt.value();
    else if (key == QLatin1String("test/unsigned"))
        actual = sUnsigned.value();
    else if (key == QLatin1String("test/bool"))
        actual = sBool.value();
    else if (key == QLatin1String("test/real"))
        actual = sReal.value();
    else
        actual = sString.value();
    QCOMPARE(actual, expected);
    ConfigStore::instance()->unset(key);
    QCOMPARE(valueForKey(key)->currentText(), valueForKey(key)->defaultText());
}

void TestConfig::sharedKeySetsBothObjects()
{
    QCOMPARE(sSharedA.value(), QStringLiteral("default-a"));
    QCOMPARE(sSharedB.value(), QStringLiteral("default-b"));
    QVERIFY(ConfigStore::instance()->set(QStringLiteral("test/shared"), QStringLiteral("/elsewhere"), nullptr));
    QCOMPARE(sSharedA.value(), QStringLiteral("/elsewhere"));
    QCOMPARE(sSharedB.value(), QStringLiteral("/elsewhere"));
    int listed = 0;
    for (const ConfigValue* value : ConfigStore::instance()->values())
        listed += value->key() == QLatin1String("test/shared");
    QCOMPARE(listed, 2);
}

void TestConfig::sharedKeyOfTwoTypesNeedsTextBothAccept()
{
    QString error;
    QVERIFY(!ConfigStore::instance()->set(QStringLiteral("test/mixed"), QStringLiteral("two"), &error));
    QVERIFY2(error.contains(QLatin1String("expects int")), qPrintable(error));
    QCOMPARE(sMixedString.value(), QStringLiteral("one"));
    QVERIFY(ConfigStore::instance()->set(QStringLiteral("test/mixed"), QStringLiteral("2"), nullptr));
    QCOMPARE(sMixedInt.value(), 2);
    QCOMPARE(sMixedString.value(), QStringLiteral("2"));
}

void TestConfig::layersApplyInOrder_data()
{
    QTest::addColumn<QByteArray>("fileContent");
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<int>("expected");

    QTest::newRow("nothing set: default") << QByteArray() << QStringList() << 7;
    QTest::newRow("file over default") << QByteArray("[test]\nint=11\n") << QStringList() << 11;
    QTest::newRow("command line over file") << QByteArray("[test]\nint=11\n")
                                            << QStringList{"--set", "test/int=12"} << 12;
    QTest::newRow("later --set wins") << QByteArray()
                                      << QStringList{"--set=test/int=1", "--set", "test/int=2"} << 2;
}

void TestConfig::layersApplyInOrder()
{
    QFETCH(QByteArray, fileContent);
    QFETCH(QStringList, args);
    QFETCH(int, expected);
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("settings.conf"), fileContent);
    Argv argv(QStringList{"--config", path} + args);
    QVERIFY(RuntimeEnv::instance()->setFromArgs(argv.argc(), argv.argv()));
    QCOMPARE(RuntimeEnv::instance()->settingsFile(), path);
    QCOMPARE(sInt.value(), expected);
}

void TestConfig::badSettingsFileKeepsDefaults_data()
{
    QTest::addColumn<bool>("isFolder");
    QTest::addColumn<QByteArray>("content");
    QTest::addColumn<QString>("expectedLog");

    QTest::newRow("unclosed section") << false << QByteArray("[test\nint=99\n") << "is malformed; using the defaults";
    QTest::newRow("line without key") << false << QByteArray("[test]\nint=99\njust words\n") << "is malformed; using the defaults";
    QTest::newRow("not a file") << true << QByteArray() << "is not readable; using the defaults";
}

void TestConfig::badSettingsFileKeepsDefaults()
{
    QFETCH(bool, isFolder);
    QFETCH(QByteArray, content);
    QFETCH(QString, expectedLog);
    QTemporaryDir dir;
    const QString path = isFolder ? dir.path() : writeFile(dir, QStringLiteral("bad.conf"), content);
    LogCapture log;
    QVERIFY(!ConfigStore::instance()->loadSettingsFile(path));
    QCOMPARE(sInt.value(), 7);
    QCOMPARE(log.lines().size(), 1);
    QVERIFY2(log.lines().first().contains(path + QLatin1Char(' ') + expectedLog), qPrintable(log.lines().first()));
}

void TestConfig::settingsFileSkipsOnlyBadLines()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("mixed.conf"),
                                   "[test]\nint=abc\nbool=false\nunknown_key=1\nstring=from file\n");
    LogCapture log;
    QVERIFY(ConfigStore::instance()->loadSettingsFile(path));
    QCOMPARE(sInt.value(), 7);
    QCOMPARE(sBool.value(), false);
    QCOMPARE(sString.value(), QStringLiteral("from file"));
    QCOMPARE(log.lines().size(), 2);
    QVERIFY(log.hasLineContaining(QStringLiteral("\"test/int\" expects int, got \"abc\"; keeping the default")));
    QVERIFY(log.hasLineContaining(QStringLiteral("unknown configuration key \"test/unknown_key\"")));
}

void TestConfig::commaInSettingsValueIsKept()
{
    QTemporaryDir dir;
    const QString path = writeFile(dir, QStringLiteral("caps.conf"),
                                   "[test]\nstring=audioconvert ! audio/x-raw,rate=44100 ! fakesink\n");
    QVERIFY(ConfigStore::instance()->loadSettingsFile(path));
    QCOMPARE(sString.value(), QStringLiteral("audioconvert ! audio/x-raw,rate=44100 ! fakesink"));
}

void TestConfig::argsAreParsed_data()
{
    QTest::addColumn<QStringList>("args");
    QTest::addColumn<bool>("ok");
    QTest::addColumn<QString>("configFile");
    QTest::addColumn<QStringList>("overrides");
    QTest::addColumn<QString>("error");

    QTest::newRow("separate values") << QStringList{"--config", "/x.conf", "--set", "test/int=3"} << true
                                     << "/x.conf" << QStringList{"test/int=3"} << QString();
    QTest::newRow("joined values") << QStringList{"--config=/y.conf", "--set=test/string=a=b"} << true
                                   << "/y.conf" << QStringList{"test/string=a=b"} << QString();
    QTest::newRow("other arguments left alone") << QStringList{"--list-config", "--set", "test/bool=no"} << true
                                                << QString() << QStringList{"test/bool=no"} << QString();
    QTest::newRow("--set without value") << QStringList{"--set"} << false << QString() << QStringList()
                                         << "--set needs a value";
    QTest::newRow("--set without equals") << QStringList{"--set", "test/int"} << false << QString() << QStringList()
                                          << "--set expects KEY=VALUE, got \"test/int\"";
    QTest::newRow("--set of a bad value") << QStringList{"--set", "test/unsigned=-5"} << false << QString()
                                          << QStringList() << "configuration key \"test/unsigned\" expects unsigned int, got \"-5\"";
}

void TestConfig::argsAreParsed()
{
    QFETCH(QStringList, args);
    QFETCH(bool, ok);
    QFETCH(QString, configFile);
    QFETCH(QStringList, overrides);
    QFETCH(QString, error);
    Argv argv(args);
    RuntimeEnv::Args parsed;
    QString actualError;
    QCOMPARE(RuntimeEnv::parseArgs(argv.argc(), argv.argv(), &parsed, &actualError), ok);
    QCOMPARE(actualError, error);
    if (!ok)
        return;
    QCOMPARE(parsed.configFile, configFile);
    QStringList actualOverrides;
    for (const auto& item : parsed.overrides)
        actualOverrides.append(item.first + QLatin1Char('=') + item.second);
    QCOMPARE(actualOverrides, overrides);
    QString stored;
    QVERIFY2(!ConfigStore::instance()->lookup(QStringLiteral("test/int"), &stored), "parsing must not apply");
}

void TestConfig::readsFromOtherThreadsSeeWholeValues()
{
    std::atomic<bool> stop{false};
    std::atomic<int> badReads{0};
    std::atomic<int> reads{0};
    auto reader = [&] {
        while (!stop) {
            const QString value = sString.value();
            if (value != QLatin1String("plain") && value != QLatin1String("a fairly long replacement text"))
                ++badReads;
            ++reads;
        }
    };
    std::thread first(reader);
    std::thread second(reader);
    for (int i = 0; i < 2000; ++i) {
        ConfigStore::instance()->set(QStringLiteral("test/string"), QStringLiteral("a fairly long replacement text"), nullptr);
        ConfigStore::instance()->unset(QStringLiteral("test/string"));
    }
    while (reads < 1000)
        std::this_thread::yield();
    stop = true;
    first.join();
    second.join();
    QCOMPARE(badReads.load(), 0);
}

void TestConfig::storageFoldersFollowKeysAndAreCreated()
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

QTEST_GUILESS_MAIN(TestConfig)
#include "tst_config.moc"
