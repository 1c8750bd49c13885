// The real cabin-media-server on a private bus, called with raw D-Bus messages. Nothing is
// loaded, so a play request is refused at once: the answers are deterministic.
//
// Its status messages are read back by a decoder written here from the wire format (big-endian;
// a variant is a 32-bit type, a null flag byte and the value), so the server's own writer is never
// its own judge. A body decodes to one line of typed values, e.g.
// "i 0 | i 4 | u 921245423 | u 3569511397 | d 0 | null", and must be consumed exactly.

#include "tests/support/ServerProcess.h"
#include "tests/support/SteppedTone.h"

#include <QtDBus>
#include <QtTest>

namespace {

const QString kService = QStringLiteral("com.kelvramotors.MediaServer2");
const QString kServer = QStringLiteral("/MediaServer2");
const QString kServerIf = QStringLiteral("com.kelvramotors.MediaServer2");
const QString kValues = QStringLiteral("/DataValues");
const QString kValuesIf = QStringLiteral("com.kelvramotors.DataValues");
const QString kInvalidArgs = QStringLiteral("org.freedesktop.DBus.Error.InvalidArgs");
const QString kInternet = QStringLiteral("GUI_canUseInternet");
const QString kPublisherIf = QStringLiteral("com.kelvramotors.DataPublisher");

// The D-Bus signature of a value that arrived inside a variant.
QString signatureOf(const QVariant& value)
{
    return value.userType() == qMetaTypeId<QDBusArgument>() ? value.value<QDBusArgument>().currentSignature()
                                                            : QString::fromLatin1(QDBusMetaType::typeToSignature(value.metaType()));
}

// Reads the primitives with QDataStream (their layout has been fixed since long before this
// server) and decodes the header and variants itself.
class WireReader
{
public:
    explicit WireReader(const QByteArray& body)
        : mStream(body)
    {
        mStream.setByteOrder(QDataStream::BigEndian);
    }

    // The whole body as typed values, or an empty string when it does not decode exactly.
    QString decode()
    {
        QStringList values{QStringLiteral("i %1").arg(read<qint32>()), QStringLiteral("i %1").arg(read<qint32>())};
        while (ok() && !mStream.atEnd())
            values.append(variant());
        return ok() ? values.join(QStringLiteral(" | ")) : QString();
    }

private:
    template<typename T> T read()
    {
        T value{};
        mStream >> value;
        return value;
    }
    bool ok() const { return mStream.status() == QDataStream::Ok && !mBadType; }
    QString text()
    {
        const QString value = read<QString>();
        return value.isNull() ? QStringLiteral("<null>") : value;
    }
    QString variant()
    {
        const quint32 type = read<quint32>();
        const bool isNull = read<quint8>();
        QStringList items;
        switch (type) {
        case 0:   // invalid: followed by a null string
            return text() == QLatin1String("<null>") && isNull ? QStringLiteral("null") : QStringLiteral("bad null");
        case 1:
            return read<quint8>() ? QStringLiteral("b true") : QStringLiteral("b false");
        case 2:
            return QStringLiteral("i %1").arg(read<qint32>());
        case 3:
            return QStringLiteral("u %1").arg(read<quint32>());
        case 5:
            return QStringLiteral("t %1").arg(read<quint64>());
        case 6:
            return QStringLiteral("d %1").arg(read<double>());
        case 8:
            for (quint32 n = read<quint32>(); ok() && n > 0; --n) {
                const QString key = text();
                items.append(key + QStringLiteral(": ") + variant());
            }
            return QLatin1Char('{') + items.join(QStringLiteral(", ")) + QLatin1Char('}');
        case 9:
            for (quint32 n = read<quint32>(); ok() && n > 0; --n)
                items.append(variant());
            return QLatin1Char('[') + items.join(QStringLiteral(", ")) + QLatin1Char(']');
        case 10:
            return QStringLiteral("s ") + text();
        default:
            mBadType = true;
            return QString();
        }
    }

    QDataStream mStream;
    bool mBadType = false;
};

} // namespace

// One server for the whole suite, with settings and cache of its own; every row that calls it
// also proves that it still answers afterwards, and it must end with status 0 on SIGTERM.
class TestServiceBus : public QObject
{
    Q_OBJECT
public slots:
    // Collects the Changed signals of /DataValues in their arrival order as (name, valid, value),
    // leaving out the traffic statistics, which change with every call the tests make.
    void recordChange(const QDBusMessage& signal)
    {
        const QVariantList args = signal.arguments();
        if (args.value(0).toString() == QLatin1String("MEDIA2_connNetStats"))
            return;
        mChanges.append({args.value(0), args.value(1), args.value(2).value<QDBusVariant>().variant()});
    }

    void messageArrived(const QString& name, const QByteArray& body)
    {
        mHeard.append({name, WireReader(body).decode()});
    }

private slots:
    void initTestCase()
    {
        QVERIFY(mServer.start({"gstreamer/audio_sink=fakesink sync=true"}));
        QVERIFY(mServer.connection().connect(kService, kValues, kValuesIf, "Changed", this, SLOT(recordChange(QDBusMessage))));
        for (const QString& path : {kServer, QStringLiteral("/MediaServer2Stats")})
            QVERIFY(mServer.connection().connect(QString(), path, kPublisherIf, "Message", this, SLOT(messageArrived(QString, QByteArray))));
    }

    void cleanupTestCase()
    {
        QVERIFY(mServer.terminate());
    }

    // Before anything is loaded or set: progress is a value (0), everything not yet known is
    // null, the booleans are false, and the state pair is the machine's NoMedia, entered at
    // start-up. An unknown name is an error that names it.
    void assemblesEachMessage_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("name");
        QTest::addColumn<QString>("decoded");
        QTest::newRow("buffer status") << kServer << "MediaServer2BufferStatus" << "i 0 | i 4 | u 921245423 | u 3569511397 | d 0 | null";
        QTest::newRow("playback status") << kServer << "MediaServer2PlaybackStatus" << "i 0 | i 3 | u 705182643 | u 3569511397 | null";
        QTest::newRow("info") << kServer << "MediaServer2Info"
                              << "i 0 | i 8 | u 794309813 | u 3569511397 | null | [i 0, i 0] | null | null | b false | b false";
        QTest::newRow("network statistics")
            << "/MediaServer2Stats" << "MediaServer2NetStats"
            << "i 0 | i 3 | u 1226627353 | u 508821187 | {categories: {}, linkState: i -1, received: t 0, sent: t 0}";
        QTest::newRow("an unknown message") << kServer << "NoSuchMessage" << "";
    }

    void assemblesEachMessage()
    {
        QFETCH(QString, path);
        QFETCH(QString, name);
        QFETCH(QString, decoded);
        QDBusMessage call = QDBusMessage::createMethodCall(path == kServer ? kService : QStringLiteral("com.kelvramotors.MediaServer2Stats"),
                                                           path, kPublisherIf, "Assemble");
        call << name;
        const QDBusMessage reply = mServer.connection().call(call);
        QCOMPARE(reply.type() == QDBusMessage::ReplyMessage ? WireReader(reply.arguments().value(0).toByteArray()).decode() : QString(),
                 decoded);
        QVERIFY2(reply.errorMessage().contains('"' + name + '"') == decoded.isEmpty(), qPrintable(reply.errorMessage()));
    }

    void answersCalls_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("interface");
        QTest::addColumn<QString>("method");
        QTest::addColumn<QVariantList>("args");
        QTest::addColumn<QVariantList>("answer");
        QTest::addColumn<QString>("error");   // empty: answered
        QTest::addColumn<QString>("mention");   // in the error message
        const QString position = "milliSecondsStartPos", nothing = "com.kelvramotors.Nothing";
        const QVariantList no{false}, none;
        QTest::newRow("positional play(i) answers false") << kServer << kServerIf << "play" << QVariantList{5000} << no << "" << "";
        QTest::newRow("named play(a{sv}) answers the same")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, 5000}}} << no << "" << "";
        QTest::newRow("named play with an extra key still answers")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, 5000}, {"extra", true}}} << no << "" << "";
        QTest::newRow("a one megabyte file name is answered")
            << kServer << kServerIf << "playMediaFile" << QVariantList{QString(1 << 20, 'a')} << QVariantList{true} << "" << "";
        QTest::newRow("killBufferDownload answers with no arguments")
            << kServer << kServerIf << "killBufferDownload" << none << none << "" << "";
        QTest::newRow("a string position is InvalidArgs naming the argument")
            << kServer << kServerIf << "play" << QVariantList{"5000"} << none << kInvalidArgs << position;
        QTest::newRow("a fractional named position is InvalidArgs")
            << kServer << kServerIf << "play" << QVariantList{QVariantMap{{position, 2.5}}} << none << kInvalidArgs << position;
        QVariantMap flood;
        for (int i = 0; i < 1000; ++i)
            flood.insert(QStringLiteral("undeclared%1").arg(i), i);
        QTest::newRow("a thousand undeclared named arguments are InvalidArgs")
            << kServer << kServerIf << "play" << QVariantList{flood} << none << kInvalidArgs << "undeclared arguments";
        QTest::newRow("an unknown method is UnknownMethod") << kServer << kServerIf << "noSuchMethod" << QVariantList() << none
                                                            << "org.freedesktop.DBus.Error.UnknownMethod" << "noSuchMethod";
        QTest::newRow("an unknown interface on the server object is UnknownInterface")
            << kServer << nothing << "play" << QVariantList{5000} << none << "org.freedesktop.DBus.Error.UnknownInterface" << nothing;
        QTest::newRow("an unknown interface on the values object is UnknownInterface")
            << kValues << nothing << "List" << QVariantList() << none << "org.freedesktop.DBus.Error.UnknownInterface" << nothing;
    }

    void answersCalls()
    {
        QFETCH(QString, path);
        QFETCH(QString, interface);
        QFETCH(QString, method);
        QFETCH(QVariantList, args);
        QFETCH(QVariantList, answer);
        QFETCH(QString, error);
        QFETCH(QString, mention);
        const QDBusMessage reply = mServer.call(path, interface, method, args);
        QCOMPARE(reply.errorName(), error);
        QVERIFY2(reply.errorMessage().contains(mention), qPrintable(reply.errorMessage()));
        if (error.isEmpty())
            QCOMPARE(reply.arguments(), answer);
        QVERIFY(serviceStatus().contains("requests"));
    }

    void describesItself_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("element");
        QTest::addColumn<QString>("fragment");
        QTest::newRow("play declares its start position")
            << kServer << "<method name=\"play\">" << "<arg name=\"milliSecondsStartPos\" type=\"i\" direction=\"in\"/>";
        QTest::newRow("List returns names") << kValues << "<method name=\"List\">" << "type=\"as\" direction=\"out\"";
        QTest::newRow("Changed carries a variant") << kValues << "<signal name=\"Changed\">" << "<arg name=\"value\" type=\"v\"/>";
    }

    // The element runs from its opening tag to the first end tag after it.
    void describesItself()
    {
        QFETCH(QString, path);
        QFETCH(QString, element);
        QFETCH(QString, fragment);
        const QString xml = mServer.call(path, "org.freedesktop.DBus.Introspectable", "Introspect").arguments().value(0).toString();
        QVERIFY2(xml.contains(element), qPrintable(xml));
        const QString found = xml.section(element, 1, 1).section("</", 0, 0);
        QVERIFY2(found.contains(fragment), qPrintable(found));
    }

    void listsAndReadsDataValues_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<bool>("valid");
        QTest::addColumn<QString>("signature");
        QTest::addColumn<QVariant>("value");   // not compared for containers
        QTest::newRow("MEDIA2_serverState is NoMedia from the start") << "MEDIA2_serverState" << true << "ai" << QVariant();
        QTest::newRow("LINK_linkState has no value before anything") << "LINK_linkState" << false << "s" << QVariant(QString());
        QTest::newRow("MEDIA2_bufferProgress is a valid zero from the start") << "MEDIA2_bufferProgress" << true << "d" << QVariant(0.0);
        QTest::newRow("MEDIA2_connNetStats is a record") << "MEDIA2_connNetStats" << true << "a{sv}" << QVariant();
        QTest::newRow("GUI_canUseInternet allows internet use by default") << kInternet << true << "b" << QVariant(true);
    }

    void listsAndReadsDataValues()
    {
        QFETCH(QString, name);
        QFETCH(bool, valid);
        QFETCH(QString, signature);
        QFETCH(QVariant, value);
        const QStringList names = mServer.call(kValues, kValuesIf, "List").arguments().value(0).toStringList();
        QVERIFY2(names.contains(name), qPrintable(names.join(' ')));
        const QVariantList read = mServer.value(name);
        QCOMPARE(read.size(), 2);
        QCOMPARE(read.at(0), QVariant(valid));
        QCOMPARE(signatureOf(read.at(1)), signature);
        if (value.isValid())
            QCOMPARE(read.at(1), value);
    }

    void setsOnlyWritableValues_data()
    {
        QTest::addColumn<QString>("name");
        QTest::addColumn<QVariant>("value");
        QTest::addColumn<QString>("error");   // empty: accepted, stored and broadcast
        QTest::newRow("internet use switched off is stored and broadcast") << kInternet << QVariant(false) << "";
        QTest::newRow("a read-only value is refused") << "MEDIA2_elapsedTime" << QVariant(5) << "com.kelvramotors.Error.ReadOnly";
        QTest::newRow("an unknown value is refused") << "NOPE" << QVariant(1) << "com.kelvramotors.Error.UnknownValue";
        QTest::newRow("an int for a boolean is refused") << kInternet << QVariant(1) << kInvalidArgs;
        QTest::newRow("the link state is set from outside") << "LINK_linkState" << QVariant(2) << "";
    }

    // A refused value reads the same afterwards and is not broadcast. A switch of internet use
    // made afterwards ends the broadcasts to look at (the bus keeps one sender's messages in order);
    // values that follow the one set (the network statistics follow the link state) are not looked at.
    void setsOnlyWritableValues()
    {
        QFETCH(QString, name);
        QFETCH(QVariant, value);
        QFETCH(QString, error);
        const QVariantList before = mServer.value(name);
        mChanges.clear();   // the previous row waited for its last broadcast
        const QDBusMessage reply = mServer.call(kValues, kValuesIf, "Set", {name, QVariant::fromValue(QDBusVariant(value))});
        QCOMPARE(reply.errorName(), error);
        QCOMPARE(reply.arguments().isEmpty(), error.isEmpty());
        QCOMPARE(mServer.value(name), (error.isEmpty() ? QVariantList{true, value} : before));
        const bool marker = !mServer.value(kInternet).value(1).toBool();
        QCOMPARE(mServer.call(kValues, kValuesIf, "Set", {kInternet, QVariant::fromValue(QDBusVariant(marker))}).errorName(), QString());
        QTRY_VERIFY(!mChanges.isEmpty() && mChanges.last() == (QVariantList{kInternet, true, marker}));
        const QList<QVariantList> accepted{{name, true, value}, {kInternet, true, marker}};
        QList<QVariantList> seen;
        for (const QVariantList& change : mChanges)
            if (change.first() == name || change.first() == kInternet)
                seen.append(change);
        QCOMPARE(seen, error.isEmpty() ? accepted : accepted.mid(1));
    }

    // Calls to the service count as its own traffic (category -1): the arguments as received,
    // the answer as sent. Reading a status message is not counted, or the statistics would
    // report their own sending. PublishAll sends every message again, also one that otherwise
    // goes out on change only.
    void countsServiceTrafficAndRepublishes()
    {
        const auto asMap = [](const QVariant& v) { return v.canConvert<QDBusArgument>() ? qdbus_cast<QVariantMap>(v) : v.toMap(); };
        const auto counts = [&] {
            const QVariantMap stats = asMap(mServer.value("MEDIA2_connNetStats").value(1));
            const QVariantMap service = asMap(asMap(stats.value("categories")).value("-1"));
            return qMakePair(service.value("received").toULongLong(), service.value("sent").toULongLong());
        };
        const auto before = counts();
        QCOMPARE(mServer.request("play", {5000}).arguments().value(0), QVariant(false));   // nothing loaded
        const auto afterPlay = counts();
        QCOMPARE(afterPlay.first, before.first + quint64(strlen("milliSecondsStartPos") + 4));
        QCOMPARE(afterPlay.second, before.second + 4);   // the boolean answer
        mHeard.clear();
        QVERIFY(mServer.call(kServer, kPublisherIf, "Assemble", {QStringLiteral("MediaServer2Info")}).type() == QDBusMessage::ReplyMessage);
        QVERIFY(mServer.call(kServer, kPublisherIf, "PublishAll").type() == QDBusMessage::ReplyMessage);
        QTRY_VERIFY(std::any_of(mHeard.cbegin(), mHeard.cend(), [](const auto& m) { return m.first == QLatin1String("MediaServer2PlaybackStatus"); }));
        QCOMPARE(counts(), afterPlay);
    }

    // Playing a custom file changes the info (the custom-media flag) and the position; subscribers
    // hear each change as a Message signal without asking, and every body decodes.
    void subscribersHearChanges()
    {
        QString error;
        const QString item = SteppedTone::file(SteppedTone::Format::Mp3, 4, &error);
        QVERIFY2(!item.isEmpty(), qPrintable(error));
        mHeard.clear();
        QCOMPARE(mServer.request(QStringLiteral("playMediaFile"), {item}).arguments().value(0), QVariant(true));
        // The index of the first message called `name` containing `fragment`; -1 none.
        const auto heard = [this](const QString& name, const QString& fragment) {
            for (int k = 0; k < mHeard.size(); ++k)
                if (mHeard[k].first == name && mHeard[k].second.contains(fragment))
                    return k;
            return -1;
        };
        const QString info = QStringLiteral("MediaServer2Info");
        // The custom-media flag (the last value) set: a custom file plays beside the state machine.
        QTRY_VERIFY_WITH_TIMEOUT(heard(info, QStringLiteral("b false | b true")) >= 0, 10000);
        const int playing = heard(info, QStringLiteral("b false | b true"));
        // The position moves on (a second into the file).
        const auto positionPast = [&](int ms) {
            for (int k = playing; k < mHeard.size(); ++k)
                if (mHeard[k].first == QLatin1String("MediaServer2PlaybackStatus") && mHeard[k].second.section(QStringLiteral("| i "), -1).toInt() >= ms)
                    return true;
            return false;
        };
        QTRY_VERIFY_WITH_TIMEOUT(positionPast(1000), 10000);
        for (const auto& message : mHeard)
            QVERIFY2(!message.second.isEmpty(), qPrintable(message.first + QStringLiteral(" did not decode")));
    }

private:
    QJsonObject serviceStatus()
    {
        return QJsonDocument::fromJson(mServer.call(kServer, kServerIf, "ServiceStatus").arguments().value(0).toString().toUtf8()).object();
    }

    ServerProcess mServer;
    QList<QVariantList> mChanges;
    QList<QPair<QString, QString>> mHeard;   // name, decoded body of each Message signal
};

QTEST_GUILESS_MAIN(TestServiceBus)
#include "tst_service_bus.moc"
