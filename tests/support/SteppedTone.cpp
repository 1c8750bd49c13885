#include "tests/support/SteppedTone.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryFile>
#include <QtDebug>

#include <gst/app/gstappsrc.h>
#include <gst/gst.h>

#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstring>

namespace {

// Part of every cached name: bump it when the generated sound changes, so files left by older
// runs are never taken for new ones.
const char* const kGeneratorVersion = "v1";
// Samples per buffer handed to the encoder: a tenth of a second keeps memory flat for long items.
constexpr int kChunkSamples = SteppedTone::kSampleRate / 10;
// Half of full scale: loud enough to stand far above codec noise, far enough from clipping that
// no encoder overshoot wraps around.
constexpr double kAmplitude = 0.5 * 32767.0;
constexpr double kTwoPi = 6.283185307179586;

// The PCM still to be produced; touched only by appsrc's streaming thread once playing.
struct ToneSource
{
    qint64 nextSample = 0;
    qint64 totalSamples = 0;
    double phase = 0.0;   // radians, kept below 2 pi so precision does not drift
};

QString failWith(QString* error, const QString& text)
{
    qWarning().noquote() << "SteppedTone:" << text;
    if (error)
        *error = text;
    return QString();
}

const char* encoderDescription(SteppedTone::Format format)
{
    switch (format) {
    case SteppedTone::Format::Mp3:
        return "lamemp3enc target=bitrate bitrate=128 cbr=true";
    case SteppedTone::Format::Ogg:
        return "vorbisenc ! oggmux";
    case SteppedTone::Format::Wav:
        return "wavenc";
    }
    return "";
}

void fillChunk(ToneSource* tone, gint16* samples, int count)
{
    for (int i = 0; i < count; ++i) {
        const int second = int((tone->nextSample + i) / SteppedTone::kSampleRate);
        const double hz = SteppedTone::frequencyForSecond(second);
        samples[i] = gint16(std::lround(kAmplitude * std::sin(tone->phase)));
        tone->phase = std::fmod(tone->phase + kTwoPi * hz / SteppedTone::kSampleRate, kTwoPi);
    }
}

GstBuffer* nextBuffer(ToneSource* tone, int count)
{
    GstBuffer* buffer = gst_buffer_new_allocate(nullptr, gsize(count) * sizeof(gint16), nullptr);
    GstMapInfo map;
    gst_buffer_map(buffer, &map, GST_MAP_WRITE);
    fillChunk(tone, reinterpret_cast<gint16*>(map.data), count);
    gst_buffer_unmap(buffer, &map);
    GST_BUFFER_PTS(buffer) = gst_util_uint64_scale(tone->nextSample, GST_SECOND, SteppedTone::kSampleRate);
    GST_BUFFER_DURATION(buffer) = gst_util_uint64_scale(count, GST_SECOND, SteppedTone::kSampleRate);
    tone->nextSample += count;
    return buffer;
}

// appsrc asks for data from its streaming thread; answering there means nothing ever blocks on
// a full queue when the pipeline has already failed.
void pushNextChunk(GstAppSrc* source, guint, gpointer data)
{
    auto* tone = static_cast<ToneSource*>(data);
    const qint64 left = tone->totalSamples - tone->nextSample;
    if (left <= 0) {
        gst_app_src_end_of_stream(source);
        return;
    }
    gst_app_src_push_buffer(source, nextBuffer(tone, int(qMin<qint64>(left, kChunkSamples))));
}

void prepareSource(GstElement* element, ToneSource* tone)
{
    GstAppSrc* source = GST_APP_SRC(element);
    GstCaps* caps = gst_caps_new_simple("audio/x-raw", "format", G_TYPE_STRING, "S16LE", "rate", G_TYPE_INT,
                                        SteppedTone::kSampleRate, "channels", G_TYPE_INT, 1, "layout",
                                        G_TYPE_STRING, "interleaved", nullptr);
    gst_app_src_set_caps(source, caps);
    gst_caps_unref(caps);
    g_object_set(element, "format", GST_FORMAT_TIME, nullptr);
    GstAppSrcCallbacks callbacks = {};
    callbacks.need_data = pushNextChunk;
    gst_app_src_set_callbacks(source, &callbacks, tone, nullptr);
}

// Plays the pipeline to its end; true on end of stream, false on an error or the time-out.
bool runToEnd(GstElement* pipeline, int timeoutSeconds, QString* error)
{
    if (gst_element_set_state(pipeline, GST_STATE_PLAYING) == GST_STATE_CHANGE_FAILURE) {
        *error = QStringLiteral("the encoding pipeline did not start");
        return false;
    }
    GstBus* bus = gst_element_get_bus(pipeline);
    GstMessage* message = gst_bus_timed_pop_filtered(bus, GstClockTime(timeoutSeconds) * GST_SECOND,
                                                     GstMessageType(GST_MESSAGE_EOS | GST_MESSAGE_ERROR));
    gst_object_unref(bus);
    bool ended = message && GST_MESSAGE_TYPE(message) == GST_MESSAGE_EOS;
    if (!message) {
        *error = QStringLiteral("encoding did not end within %1 s").arg(timeoutSeconds);
    } else if (!ended) {
        GError* gerror = nullptr;
        gst_message_parse_error(message, &gerror, nullptr);
        *error = QString::fromUtf8(gerror->message);
        g_error_free(gerror);
    }
    if (message)
        gst_message_unref(message);
    gst_element_set_state(pipeline, GST_STATE_NULL);
    return ended;
}

bool encode(SteppedTone::Format format, int seconds, const QString& target, QString* error)
{
    gst_init(nullptr, nullptr);
    const QByteArray description = QByteArray("appsrc name=source ! audioconvert ! ")
                                   + encoderDescription(format) + " ! filesink name=sink";
    GError* gerror = nullptr;
    GstElement* pipeline = gst_parse_launch(description.constData(), &gerror);
    if (gerror) {
        *error = QString::fromUtf8(gerror->message);
        g_error_free(gerror);
        if (pipeline)
            gst_object_unref(pipeline);
        return false;
    }
    ToneSource tone;
    tone.totalSamples = qint64(seconds) * SteppedTone::kSampleRate;
    GstElement* source = gst_bin_get_by_name(GST_BIN(pipeline), "source");
    GstElement* sink = gst_bin_get_by_name(GST_BIN(pipeline), "sink");
    prepareSource(source, &tone);
    g_object_set(sink, "location", QFile::encodeName(target).constData(), nullptr);
    gst_object_unref(source);
    gst_object_unref(sink);
    const bool ended = runToEnd(pipeline, 60 + seconds, error);
    gst_object_unref(pipeline);
    return ended;
}

QString cachedPath(const QString& name)
{
    return QDir(SteppedTone::cacheFolder()).filePath(name);
}

// A unique name next to the target, so the final rename stays within one file system.
bool reserveTemporary(QTemporaryFile* temporary, const QString& target, QString* error)
{
    if (!QDir().mkpath(QFileInfo(target).absolutePath())) {
        *error = QStringLiteral("cannot create %1").arg(QFileInfo(target).absolutePath());
        return false;
    }
    temporary->setFileTemplate(target + QStringLiteral(".XXXXXX.part"));
    if (!temporary->open()) {
        *error = temporary->errorString();
        return false;
    }
    temporary->close();
    return true;
}

// rename(2) replaces the target in one step: readers see either no file or a whole one.
bool publish(QTemporaryFile* temporary, const QString& target, QString* error)
{
    // QTemporaryFile creates owner-only files; the cache is read by whoever runs the suites.
    temporary->setPermissions(QFileDevice::ReadOwner | QFileDevice::WriteOwner | QFileDevice::ReadGroup
                              | QFileDevice::ReadOther);
    if (std::rename(QFile::encodeName(temporary->fileName()).constData(), QFile::encodeName(target).constData()) != 0) {
        *error = QStringLiteral("cannot rename to %1: %2").arg(target, QString::fromLocal8Bit(std::strerror(errno)));
        return false;
    }
    temporary->setAutoRemove(false);
    return true;
}

QByteArray garbageBytes()
{
    // A fixed sequence without 0xFF, so no byte pair can pass for an MPEG frame header, and
    // without a tag at the start that a type finder could recognise.
    QByteArray bytes(64 * 1024, Qt::Uninitialized);
    quint32 state = 0x2545F491u;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = char((state >> 24) % 0xFFu);
    }
    return bytes;
}

} // namespace

int SteppedTone::secondForFrequency(double hz)
{
    const double steps = (hz - kBaseHz) / kStepHz;
    if (steps < -0.5)
        return -1;
    return int(std::lround(steps));
}

QString SteppedTone::suffix(Format format)
{
    switch (format) {
    case Format::Mp3:
        return QStringLiteral("mp3");
    case Format::Ogg:
        return QStringLiteral("ogg");
    case Format::Wav:
        return QStringLiteral("wav");
    }
    return QString();
}

QString SteppedTone::cacheFolder()
{
    const QString configured = qEnvironmentVariable("CABIN_TEST_MEDIA_DIR");
    return configured.isEmpty() ? QDir::tempPath() + QStringLiteral("/cabin-test-media") : configured;
}

QString SteppedTone::file(Format format, int seconds, QString* error)
{
    if (seconds <= 0)
        return failWith(error, QStringLiteral("a stepped tone needs at least one second"));
    const QString target = cachedPath(
        QStringLiteral("stepped-tone-%1-%2s.%3").arg(QLatin1String(kGeneratorVersion)).arg(seconds).arg(suffix(format)));
    if (QFileInfo::exists(target))
        return target;
    QTemporaryFile temporary;
    QString why;
    if (!reserveTemporary(&temporary, target, &why) || !encode(format, seconds, temporary.fileName(), &why)
        || !publish(&temporary, target, &why))
        return failWith(error, QStringLiteral("cannot generate %1: %2").arg(target, why));
    return target;
}

QString SteppedTone::corruptFile(QString* error)
{
    const QString target = cachedPath(QStringLiteral("corrupt-%1.mp3").arg(QLatin1String(kGeneratorVersion)));
    if (QFileInfo::exists(target))
        return target;
    QTemporaryFile temporary;
    QString why;
    if (!reserveTemporary(&temporary, target, &why))
        return failWith(error, why);
    if (!temporary.open() || temporary.write(garbageBytes()) != 64 * 1024 || !temporary.flush())
        return failWith(error, QStringLiteral("cannot write %1: %2").arg(target, temporary.errorString()));
    temporary.close();
    if (!publish(&temporary, target, &why))
        return failWith(error, why);
    return target;
}
