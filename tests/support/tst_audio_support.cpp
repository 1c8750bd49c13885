// The audio fixtures later playback tests stand on: generated stepped tones decode back to their
// seconds in order, WavReader reads unfinished and damaged WAV headers by the bytes present,
// tells silence and noise from a step, and generated files are cached.

#include "tests/support/SteppedTone.h"
#include "tests/support/WavReader.h"

#include <QFileInfo>
#include <QTemporaryDir>
#include <QtEndian>
#include <QtTest>

#include <gst/gst.h>

namespace {

enum class Damage { None, ZeroSizes, AllOnesSizes, DataSizePastEnd, CutInThirdSecond, ChunkBeforeFmt, LeadingSilence };
const QList<int> kFiveSeconds{0, 1, 2, 3, 4};

// Runs "<source> ! ... ! wavenc" into target; false with GStreamer's own text on an error.
bool writeWav(const QString& source, const QString& target, QString* error)
{
    const QString description = source + " ! audioconvert ! audio/x-raw,format=S16LE ! wavenc ! filesink location=\"" + target + '"';
    GError* gerror = nullptr;
    GstElement* pipeline = gst_parse_launch(description.toUtf8().constData(), &gerror);
    GstMessage* message = nullptr;
    if (!gerror) {
        gst_element_set_state(pipeline, GST_STATE_PLAYING);
        message = gst_bus_timed_pop_filtered(GST_ELEMENT_BUS(pipeline), 30 * GST_SECOND, GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
        if (message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_ERROR)
            gst_message_parse_error(message, &gerror, nullptr);
        gst_element_set_state(pipeline, GST_STATE_NULL);
    }
    *error = gerror ? QString::fromUtf8(gerror->message) : message ? QString() : QStringLiteral("no end within 30 s");
    gst_clear_message(&message);
    gst_clear_object(&pipeline);
    g_clear_error(&gerror);
    return error->isEmpty();
}

// The way a capture of the output looks: any playable file decoded into a 16-bit WAV.
QString decoder(const QString& file)
{
    return "uridecodebin uri=\"" + QUrl::fromLocalFile(file).toString(QUrl::FullyEncoded) + '"';
}

// A copy of the five-second WAV tone with the given damage, in dir.
QString damagedTone(const QTemporaryDir& dir, Damage kind)
{
    QFile item(SteppedTone::file(SteppedTone::Format::Wav, 5));
    QFile copy(dir.filePath(QStringLiteral("damaged.wav")));
    if (!item.open(QIODevice::ReadOnly) || !copy.open(QIODevice::WriteOnly))
        return QString();
    QByteArray wav = item.readAll();
    const qsizetype data = wav.indexOf("data", 12);
    const quint32 sizes = kind == Damage::AllOnesSizes ? 0xFFFFFFFFu : 0u;
    if (kind == Damage::LeadingSilence)
        wav.insert(data + 8, QByteArray(qRound(0.6 * SteppedTone::kSampleRate) * 2, '\0'));
    if (kind == Damage::ZeroSizes || kind == Damage::AllOnesSizes || kind == Damage::LeadingSilence)
        qToLittleEndian(sizes, wav.data() + 4), qToLittleEndian(sizes, wav.data() + data + 4);
    if (kind == Damage::DataSizePastEnd)
        qToLittleEndian(quint32(wav.size() - data - 8 + 1000000), wav.data() + data + 4);
    if (kind == Damage::CutInThirdSecond)
        wav.truncate(data + 8 + qsizetype(2.75 * SteppedTone::kSampleRate) * 2);
    if (kind == Damage::ChunkBeforeFmt)
        wav.insert(12, QByteArray("LIST\x05\0\0\0abcde\0", 14));   // odd size, padded
    return copy.write(wav) == wav.size() ? copy.fileName() : QString();
}

} // namespace

Q_DECLARE_METATYPE(SteppedTone::Format)
Q_DECLARE_METATYPE(Damage)

class TestAudioSupport : public QObject
{
    Q_OBJECT
private slots:
    void initTestCase() { gst_init(nullptr, nullptr); }

    void generatedItemDecodesToItsSeconds_data()
    {
        QTest::addColumn<SteppedTone::Format>("format");
        QTest::newRow("mp3 decodes to seconds 0 to 4 in order") << SteppedTone::Format::Mp3;
        QTest::newRow("ogg decodes to seconds 0 to 4 in order") << SteppedTone::Format::Ogg;
        QTest::newRow("wav decodes to seconds 0 to 4 in order") << SteppedTone::Format::Wav;
    }
    void generatedItemDecodesToItsSeconds()
    {
        QFETCH(SteppedTone::Format, format);
        QString error;
        const QString item = SteppedTone::file(format, 5, &error);
        QVERIFY2(!item.isEmpty(), qPrintable(error));
        QTemporaryDir dir;
        const QString decoded = dir.filePath(QStringLiteral("decoded.wav"));
        QVERIFY2(writeWav(decoder(item), decoded, &error), qPrintable(error));
        WavReader reader;
        QVERIFY2(reader.load(decoded, &error), qPrintable(error));
        QCOMPARE(reader.steppedSeconds(), kFiveSeconds);
        QVERIFY2(reader.leadingSilenceSeconds() < 0.05, qPrintable(QString::number(reader.leadingSilenceSeconds())));
        QVERIFY2(qAbs(reader.durationSeconds() - 5.0) < 0.1, qPrintable(QString::number(reader.durationSeconds())));
    }

    void damagedHeaderIsReadByTheBytesPresent_data()
    {
        QTest::addColumn<Damage>("kind");
        QTest::addColumn<QList<int>>("seconds");
        QTest::newRow("finalised header reads five seconds") << Damage::None << kFiveSeconds;
        QTest::newRow("riff and data sizes zero read five seconds") << Damage::ZeroSizes << kFiveSeconds;
        QTest::newRow("sizes all ones read five seconds") << Damage::AllOnesSizes << kFiveSeconds;
        QTest::newRow("data size past the end reads five seconds") << Damage::DataSizePastEnd << kFiveSeconds;
        QTest::newRow("file cut at 2.75 s reads three seconds") << Damage::CutInThirdSecond << QList<int>{0, 1, 2};
        QTest::newRow("odd chunk before fmt is skipped") << Damage::ChunkBeforeFmt << kFiveSeconds;
    }
    void damagedHeaderIsReadByTheBytesPresent()
    {
        QFETCH(Damage, kind);
        QFETCH(QList<int>, seconds);
        QTemporaryDir dir;
        WavReader reader;
        QString error;
        QVERIFY2(reader.load(damagedTone(dir, kind), &error), qPrintable(error));
        QCOMPARE(reader.steppedSeconds(), seconds);
        const double expected = kind == Damage::CutInThirdSecond ? 2.75 : 5.0;
        QCOMPARE(qRound(reader.durationSeconds() * 1000), qRound(expected * 1000));
    }

    void quietOrNoisySoundIsNoStep_data()
    {
        QTest::addColumn<QString>("source");
        QTest::addColumn<double>("frequency");
        QTest::newRow("zeros at 16 kHz stereo are silence")
            << "audiotestsrc wave=silence samplesperbuffer=16000 num-buffers=3 ! audio/x-raw,rate=16000,channels=2" << 0.0;
        QTest::newRow("noise at -50 dBFS at 8 kHz is silence")
            << "audiotestsrc wave=white-noise volume=0.005 samplesperbuffer=8000 num-buffers=3 ! audio/x-raw,rate=8000" << 0.0;
        QTest::newRow("loud noise at 48 kHz is sound but no step")
            << "audiotestsrc wave=white-noise volume=0.5 samplesperbuffer=48000 num-buffers=3 ! audio/x-raw,rate=48000" << -1.0;
    }
    void quietOrNoisySoundIsNoStep()
    {
        QFETCH(QString, source);
        QFETCH(double, frequency);
        QTemporaryDir dir;
        const QString path = dir.filePath(QStringLiteral("sound.wav"));
        QString error;
        QVERIFY2(writeWav(source, path, &error), qPrintable(error));
        WavReader reader;
        QVERIFY2(reader.load(path, &error), qPrintable(error));
        QCOMPARE(reader.dominantFrequencies(), QList<double>(3, frequency));
        QCOMPARE(reader.steppedSeconds(), QList<int>(3, -1));
    }

    void leadingSilenceIsSkippedAndMeasured_data()
    {
        QTest::addColumn<Damage>("kind");
        QTest::addColumn<double>("silence");
        QTest::newRow("no silence before the tone") << Damage::ZeroSizes << 0.0;
        QTest::newRow("0.6 s of silence before the tone is skipped") << Damage::LeadingSilence << 0.6;
    }
    void leadingSilenceIsSkippedAndMeasured()
    {
        QFETCH(Damage, kind);
        QFETCH(double, silence);
        QTemporaryDir dir;
        WavReader reader;
        QVERIFY(reader.load(damagedTone(dir, kind)));
        QCOMPARE(reader.steppedSeconds(), kFiveSeconds);
        QVERIFY2(qAbs(reader.leadingSilenceSeconds() - silence) < 0.001, qPrintable(QString::number(reader.leadingSilenceSeconds())));
    }

    void generatedFileIsReused_data()
    {
        QTest::addColumn<SteppedTone::Format>("format");
        QTest::newRow("wav is not generated twice") << SteppedTone::Format::Wav;
        QTest::newRow("mp3 is not generated twice") << SteppedTone::Format::Mp3;
    }
    void generatedFileIsReused()
    {
        QFETCH(SteppedTone::Format, format);
        const QString first = SteppedTone::file(format, 1);
        const QDateTime marked(QDate(2001, 1, 1), QTime(0, 0), Qt::UTC);
        QFile file(first);
        QVERIFY(file.open(QIODevice::ReadWrite) && file.setFileTime(marked, QFileDevice::FileModificationTime));
        QCOMPARE(SteppedTone::file(format, 1), first);
        QCOMPARE(QFileInfo(first).lastModified(), marked);
    }

    void corruptFileFailsToDecode()
    {
        const QString corrupt = SteppedTone::corruptFile();
        QVERIFY(corrupt.endsWith(QLatin1String(".mp3")) && QFileInfo(corrupt).size() > 0);
        QTemporaryDir dir;
        QString error;
        QVERIFY(!writeWav(decoder(corrupt), dir.filePath(QStringLiteral("decoded.wav")), &error));
        QVERIFY2(error.contains(QLatin1String("type")), qPrintable(error));   // typefinding gives up
    }
};

QTEST_GUILESS_MAIN(TestAudioSupport)
#include "tst_audio_support.moc"
