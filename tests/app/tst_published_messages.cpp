#include "tests/support/ServerProcess.h"
#include "tests/support/SteppedTone.h"

#include <QDBusConnection>
#include <QtEndian>
#include <QtTest>

// The status messages of the real server, read back by a decoder written here from the wire
// format alone (big-endian; a variant is a 32-bit type, a null flag byte and the value), so
// the server's own writer is never its own judge. A body decodes to one line of typed values,
// e.g. "i 0 | i 4 | u 921245423 | u 3569511397 | d 0 | null", and must be consumed exactly.
namespace {

const QString kPublisherInterface = QStringLiteral("com.kelvramotors.DataPublisher");

class WireReader
{
public:
    explicit WireReader(const QByteArray& body)
        : mBody(body)
    {
    }

    // The whole body as typed values, or an empty string when it does not decode exactly.
    QString decode()
    {
        QStringList values{QStringLiteral("i %1").arg(qint32(u32())), QStringLiteral("i %1").arg(qint32(u32()))};
        while (mOk && mPos < mBody.size())
            values.append(variant());
        return mOk ? values.join(QStringLiteral(" | ")) : QString();
    }

private:
    bool need(int bytes)
    {
        mOk = mOk && mPos + bytes <= mBody.size();
        return mOk;
    }
    quint64 unsignedOf(int bytes)
    {
        if (!need(bytes))
            return 0;
        quint64 value = 0;
        for (int k = 0; k < bytes; ++k)
            value = (value << 8) | quint8(mBody[mPos++]);
        return value;
    }
    quint32 u32() { return quint32(unsignedOf(4)); }
    QString string()
    {
        const quint32 bytes = u32();
        if (bytes == 0xffffffff)
            return QStringLiteral("<null>");
        if (!need(int(bytes)))
            return QString();
        const QByteArray utf16 = mBody.mid(mPos, int(bytes));
        mPos += int(bytes);
        QString text;
        for (int k = 0; k + 1 < utf16.size(); k += 2)
            text.append(QChar(ushort(quint8(utf16[k]) << 8 | quint8(utf16[k + 1]))));
        return text;
    }
    QString variant()
    {
        const quint32 type = u32();
        const quint64 isNull = unsignedOf(1);
        switch (type) {
        case 0:   // invalid: followed by a null string
            return string() == QLatin1String("<null>") && isNull ? QStringLiteral("null") : QStringLiteral("bad null");
        case 1:
            return unsignedOf(1) ? QStringLiteral("b true") : QStringLiteral("b false");
        case 2:
            return QStringLiteral("i %1").arg(qint32(u32()));
        case 3:
            return QStringLiteral("u %1").arg(u32());
        case 5:
            return QStringLiteral("t %1").arg(unsignedOf(8));
        case 6: {
            const quint64 bits = unsignedOf(8);
            double value = 0;
            memcpy(&value, &bits, sizeof value);
            return QStringLiteral("d %1").arg(value);
        }
        case 8: {
            QStringList entries;
            for (quint32 n = u32(); mOk && n > 0; --n) {
                const QString key = string();
                entries.append(key + QStringLiteral(": ") + variant());
            }
            return QLatin1Char('{') + entries.join(QStringLiteral(", ")) + QLatin1Char('}');
        }
        case 9: {
            QStringList items;
            for (quint32 n = u32(); mOk && n > 0; --n)
                items.append(variant());
            return QLatin1Char('[') + items.join(QStringLiteral(", ")) + QLatin1Char(']');
        }
        case 10:
            return QStringLiteral("s ") + string();
        default:
            mOk = false;
            return QString();
        }
    }

    const QByteArray mBody;
    int mPos = 0;
    bool mOk = true;
};

} // namespace

class TestPublishedMessages : public QObject
{
    Q_OBJECT

private slots:
    void initTestCase();
    void assemblesEachMessage_data();
    void assemblesEachMessage();
    void subscribersHearChanges();
    void unknownMessageIsAnErrorNamingIt();

public slots:
    void messageArrived(const QString& name, const QByteArray& body);

private:
    QString assembled(const QString& path, const QString& name, QString* error = nullptr);

    ServerProcess mServer;
    QString mItem;
    QList<QPair<QString, QString>> mHeard;   // name, decoded body
};

void TestPublishedMessages::initTestCase()
{
    QString error;
    mItem = SteppedTone::file(SteppedTone::Format::Mp3, 4, &error);
    QVERIFY2(!mItem.isEmpty(), qPrintable(error));
    QVERIFY(mServer.start({QStringLiteral("gstreamer/audio_sink=fakesink sync=true")}));
    for (const QString& path : {QStringLiteral("/MediaServer2"), QStringLiteral("/MediaServer2Stats")})
        QVERIFY(mServer.connection().connect(QString(), path, kPublisherInterface, QStringLiteral("Message"), this,
                                             SLOT(messageArrived(QString, QByteArray))));
}

void TestPublishedMessages::messageArrived(const QString& name, const QByteArray& body)
{
    mHeard.append({name, WireReader(body).decode()});
}

QString TestPublishedMessages::assembled(const QString& path, const QString& name, QString* error)
{
    QDBusMessage call = QDBusMessage::createMethodCall(path == QLatin1String("/MediaServer2") ? QStringLiteral("com.kelvramotors.MediaServer2")
                                                                                            : QStringLiteral("com.kelvramotors.MediaServer2Stats"),
                                                       path, kPublisherInterface, QStringLiteral("Assemble"));
    call << name;
    const QDBusMessage reply = mServer.connection().call(call);
    if (error)
        *error = reply.errorMessage();
    return reply.type() == QDBusMessage::ReplyMessage ? WireReader(reply.arguments().value(0).toByteArray()).decode() : QString();
}

// Before anything is loaded: progress is a value (0), everything not yet known is null, the
// booleans are false, and the state pair is the machine's NoMedia, entered at start-up.
void TestPublishedMessages::assemblesEachMessage_data()
{
    QTest::addColumn<QString>("path");
    QTest::addColumn<QString>("name");
    QTest::addColumn<QString>("decoded");
    QTest::newRow("buffer status") << "/MediaServer2" << "MediaServer2BufferStatus"
                                   << "i 0 | i 4 | u 921245423 | u 3569511397 | d 0 | null";
    QTest::newRow("playback status") << "/MediaServer2" << "MediaServer2PlaybackStatus" << "i 0 | i 3 | u 705182643 | u 3569511397 | null";
    QTest::newRow("info") << "/MediaServer2" << "MediaServer2Info"
                          << "i 0 | i 8 | u 794309813 | u 3569511397 | null | [i 0, i 0] | null | null | b false | b false";
    QTest::newRow("network statistics")
        << "/MediaServer2Stats" << "MediaServer2NetStats"
        << "i 0 | i 3 | u 1226627353 | u 508821187 | {categories: {}, linkState: i -1, received: t 0, sent: t 0}";
}

void TestPublishedMessages::assemblesEachMessage()
{
    QFETCH(QString, path);
    QFETCH(QString, name);
    QFETCH(QString, decoded);
    QCOMPARE(assembled(path, name), decoded);
}

// Playing a custom file changes the info (the custom-media flag) and the position; subscribers
// hear each change as a Message signal without asking.
void TestPublishedMessages::subscribersHearChanges()
{
    mHeard.clear();
    QCOMPARE(mServer.request(QStringLiteral("playMediaFile"), {mItem}).arguments().value(0), QVariant(true));
    // The index of the first message called `name` containing `fragment` from `from` on; -1 none.
    const auto heard = [this](const QString& name, const QString& fragment, int from = 0) {
        for (int k = from; k < mHeard.size(); ++k)
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
    // The end of the file clears the flag.
    QTRY_VERIFY_WITH_TIMEOUT(heard(info, QStringLiteral("b false | b false"), playing) >= 0, 20000);
    for (const auto& message : mHeard)
        QVERIFY2(!message.second.isEmpty(), qPrintable(message.first + QStringLiteral(" did not decode")));
}

void TestPublishedMessages::unknownMessageIsAnErrorNamingIt()
{
    QString error;
    QCOMPARE(assembled(QStringLiteral("/MediaServer2"), QStringLiteral("NoSuchMessage"), &error), QString());
    QVERIFY2(error.contains(QLatin1String("\"NoSuchMessage\"")), qPrintable(error));
}

QTEST_GUILESS_MAIN(TestPublishedMessages)
#include "tst_published_messages.moc"
