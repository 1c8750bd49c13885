// The audio fixtures later playback tests stand on: stepped tones decode back to their seconds,
// quiet sound reads as silence, damaged WAV headers are read by the bytes present.

#include "tests/support/SteppedTone.h"
#include "tests/support/WavReader.h"

#include <QtTest>

#include <gst/gst.h>

namespace {

const QList<int> kFiveSeconds{0, 1, 2, 3, 4};

// Runs "<source> ! ... ! wavenc" into target; true when the pipeline reached its end.
bool writeWav(const QString& source, const QString& target)
{
    const QString description = source + " ! audioconvert ! audio/x-raw,format=S16LE ! wavenc ! filesink location=\"" + target + '"';
    GstElement* pipeline = gst_parse_launch(description.toUtf8().constData(), nullptr);
    if (!pipeline)
        return false;
    gst_element_set_state(pipeline, GST_STATE_PLAYING);
    GstMessage* message = gst_bus_timed_pop_filtered(GST_ELEMENT_BUS(pipeline), 30 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    const bool ended = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    gst_clear_message(&message);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    gst_object_unref(pipeline);
    return ended;
}

} // namespace

class TestAudioSupport : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { gst_init(nullptr, nullptr); }

    // Each generated format decoded into a WAV, as a capture of the output looks, and silence.
    void soundReadsAsItsSeconds_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<QList<int>>("seconds");   // each -1 is silence here
        for (SteppedTone::Format format : {SteppedTone::Format::Mp3, SteppedTone::Format::Ogg, SteppedTone::Format::Wav}) {
            const QUrl item = QUrl::fromLocalFile(SteppedTone::file(format, 5));
            QTest::newRow(qPrintable(SteppedTone::suffix(format))) << "uridecodebin uri=\"" + item.toString(QUrl::FullyEncoded) + '"' << kFiveSeconds;
        }
        // Below the -40 dBFS silence threshold, and stereo at another rate: mixed down and read.
        QTest::newRow("noise at -50 dBFS, 16 kHz stereo")
            << "audiotestsrc wave=white-noise volume=0.005 samplesperbuffer=16000 num-buffers=3 ! audio/x-raw,rate=16000,channels=2"
            << QList<int>(3, -1);
    }
    void soundReadsAsItsSeconds()
    {
        QFETCH(QString, source);
        QFETCH(QList<int>, seconds);
        QTemporaryDir dir;
        QVERIFY(writeWav(source, dir.filePath(QStringLiteral("sound.wav"))));
        WavReader reader;
        QVERIFY(reader.load(dir.filePath(QStringLiteral("sound.wav"))));
        QCOMPARE(reader.steppedSeconds(), seconds);
        if (seconds.first() < 0)
            QCOMPARE(reader.dominantFrequencies(), QList<double>(3, 0.0));
        QVERIFY2(qAbs(reader.durationSeconds() - seconds.size()) < 0.1, qPrintable(QString::number(reader.durationSeconds())));
    }

    // What a writer killed before finalising the header leaves, and a file cut at 2.75 s.
    void damagedHeaderIsReadByTheBytesPresent_data()
    {
        QTest::addColumn<int>("damage");
        QTest::addColumn<QList<int>>("seconds");
        QTest::newRow("riff and data sizes zero") << 0 << kFiveSeconds;
        QTest::newRow("data size past the end") << 1 << kFiveSeconds;
        QTest::newRow("cut at 2.75 s") << 2 << QList<int>{0, 1, 2};
    }
    void damagedHeaderIsReadByTheBytesPresent()
    {
        QFETCH(int, damage);
        QFETCH(QList<int>, seconds);
        QFile item(SteppedTone::file(SteppedTone::Format::Wav, 5));
        QVERIFY(item.open(QIODevice::ReadOnly));
        QByteArray wav = item.readAll();
        const qsizetype data = wav.indexOf("data", 12);
        if (damage == 0)
            qToLittleEndian(0u, wav.data() + 4), qToLittleEndian(0u, wav.data() + data + 4);
        else if (damage == 1)
            qToLittleEndian(quint32(wav.size() - data - 8 + 1000000), wav.data() + data + 4);
        else
            wav.truncate(data + 8 + qsizetype(2.75 * SteppedTone::kSampleRate) * 2);
        QTemporaryDir dir;
        QFile copy(dir.filePath(QStringLiteral("damaged.wav")));
        QVERIFY(copy.open(QIODevice::WriteOnly) && copy.write(wav) == wav.size());
        copy.close();
        WavReader reader;
        QVERIFY(reader.load(copy.fileName()));
        QCOMPARE(reader.steppedSeconds(), seconds);
        QCOMPARE(qRound(reader.durationSeconds() * 1000), damage == 2 ? 2750 : 5000);
    }
};

QTEST_GUILESS_MAIN(TestAudioSupport)
#include "tst_audio_support.moc"
