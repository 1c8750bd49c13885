#include "tests/support/WavReader.h"

#include "tests/support/SteppedTone.h"

#include <QDebug>
#include <QFile>
#include <QtEndian>

#include <cmath>

namespace {

// -40 dBFS: the stepped tone sits at -9 dBFS RMS; codec noise around silence stays far below.
constexpr double kSilenceRms = 0.01;
// A sample this loud is sound, not dither or a codec's pre-echo of the first note.
constexpr double kOnsetLevel = 0.05;
// Hysteresis of the crossing count: far above noise, far below the tone's peak of 0.5.
constexpr double kTriggerLevel = 0.1;
// Share of the window's energy the strongest step must hold (see the header for the algebra).
constexpr double kMinimumDominance = 0.2;
// Steps tried either side of the pitch estimate: straddling windows estimate between two steps.
constexpr int kCandidateSpread = 3;
constexpr double kTwoPi = 6.283185307179586;

quint16 readU16(const QByteArray& bytes, qint64 at)
{
    return qFromLittleEndian<quint16>(bytes.constData() + at);
}

quint32 readU32(const QByteArray& bytes, qint64 at)
{
    return qFromLittleEndian<quint32>(bytes.constData() + at);
}

bool fail(QString* error, const QString& text)
{
    if (error)
        *error = text;
    return false;
}

} // namespace

bool WavReader::load(const QString& path, QString* error)
{
    mSamples.clear();
    mSampleRate = mChannelCount = 0;
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly))
        return fail(error, file.errorString());
    const QByteArray bytes = file.readAll();
    if (bytes.size() < 12 || !bytes.startsWith("RIFF") || bytes.mid(8, 4) != "WAVE")
        return fail(error, QStringLiteral("not a RIFF WAVE file"));
    for (qint64 at = 12; at + 8 <= bytes.size();) {
        const QByteArray id = bytes.mid(at, 4);
        const qint64 size = readU32(bytes, at + 4);
        const qint64 body = at + 8;
        if (id == "fmt " && !readFormat(bytes.mid(body, size), error))
            return false;
        if (id == "data") {
            if (mSampleRate == 0)
                return fail(error, QStringLiteral("data chunk before fmt chunk"));
            const qint64 present = bytes.size() - body;
            readSamples(bytes.constData() + body, size == 0 || size > present ? present : size);
            return true;
        }
        at = body + size + (size & 1);   // chunks are padded to even lengths
    }
    return fail(error, QStringLiteral("no data chunk"));
}

bool WavReader::readFormat(const QByteArray& body, QString* error)
{
    if (body.size() < 16)
        return fail(error, QStringLiteral("fmt chunk too short"));
    const quint16 tag = readU16(body, 0);
    const int channels = readU16(body, 2);
    const int rate = int(readU32(body, 4));
    const int bits = readU16(body, 14);
    if ((tag != 1 && tag != 0xFFFE) || bits != 16)
        return fail(error, QStringLiteral("not 16-bit PCM (format %1, %2 bits)").arg(tag).arg(bits));
    if (channels < 1 || rate < 8000 || rate > 48000)
        return fail(error, QStringLiteral("unsupported layout: %1 channels at %2 Hz").arg(channels).arg(rate));
    mChannelCount = channels;
    mSampleRate = rate;
    return true;
}

void WavReader::readSamples(const char* data, qint64 bytes)
{
    const qint64 frames = bytes / (2 * mChannelCount);   // a torn last frame is dropped
    mSamples.resize(size_t(frames));
    for (qint64 frame = 0; frame < frames; ++frame) {
        double sum = 0.0;
        for (int channel = 0; channel < mChannelCount; ++channel)
            sum += qFromLittleEndian<qint16>(data + 2 * (frame * mChannelCount + channel));
        mSamples[size_t(frame)] = float(sum / mChannelCount / 32768.0);
    }
}

double WavReader::durationSeconds() const
{
    return mSampleRate > 0 ? double(mSamples.size()) / mSampleRate : 0.0;
}

double WavReader::leadingSilenceSeconds() const
{
    return mSampleRate > 0 ? double(firstSoundIndex()) / mSampleRate : 0.0;
}

qint64 WavReader::firstSoundIndex() const
{
    for (size_t i = 0; i < mSamples.size(); ++i)
        if (std::fabs(mSamples[i]) > kOnsetLevel)
            return qint64(i);
    return qint64(mSamples.size());
}

QList<double> WavReader::dominantFrequencies(double windowSeconds) const
{
    QList<double> frequencies;
    const qint64 window = qint64(std::lround(windowSeconds * mSampleRate));
    if (window <= 0)
        return frequencies;
    const qint64 total = qint64(mSamples.size());
    const qint64 first = firstSoundIndex() < total ? firstSoundIndex() : 0;
    for (qint64 begin = first; total - begin >= (window + 1) / 2; begin += window)
        frequencies.append(windowFrequency(begin, qMin(window, total - begin)));
    return frequencies;
}

QList<int> WavReader::steppedSeconds(double windowSeconds) const
{
    QList<int> seconds;
    for (double hz : dominantFrequencies(windowSeconds))
        seconds.append(hz > 0 ? SteppedTone::secondForFrequency(hz) : -1);
    return seconds;
}

double WavReader::windowFrequency(qint64 begin, qint64 count) const
{
    const double windowEnergy = energy(begin, count);
    if (std::sqrt(windowEnergy / count) < kSilenceRms)
        return 0.0;
    const int estimate = SteppedTone::secondForFrequency(estimatePitch(begin, count));
    if (estimate < 0)
        return -1.0;
    double bestHz = -1.0;
    double bestPower = 0.0;
    for (int k = qMax(0, estimate - kCandidateSpread); k <= estimate + kCandidateSpread; ++k) {
        const double hz = SteppedTone::frequencyForSecond(k);
        const double power = hz < mSampleRate / 2.0 ? goertzelPower(begin, count, hz) : 0.0;
        if (power > bestPower) {
            bestPower = power;
            bestHz = hz;
        }
    }
    // 1.0 for a pure tone filling the window; see the header.
    const double dominance = 2.0 * bestPower / (double(count) * windowEnergy);
    return dominance >= kMinimumDominance ? bestHz : -1.0;
}

// Rising crossings through a band of +-kTriggerLevel, timed between the first and the last one,
// so silence at either end of the window does not dilute the rate.
double WavReader::estimatePitch(qint64 begin, qint64 count) const
{
    bool high = false;
    qint64 rises = 0, firstRise = -1, lastRise = -1;
    for (qint64 i = begin; i < begin + count; ++i) {
        const float sample = mSamples[size_t(i)];
        if (!high && sample > kTriggerLevel) {
            high = true;
            lastRise = i;
            if (rises++ == 0)
                firstRise = i;
        } else if (high && sample < -kTriggerLevel) {
            high = false;
        }
    }
    if (rises < 2)
        return 0.0;
    return double(rises - 1) * mSampleRate / double(lastRise - firstRise);
}

double WavReader::goertzelPower(qint64 begin, qint64 count, double hz) const
{
    const double coefficient = 2.0 * std::cos(kTwoPi * hz / mSampleRate);
    double previous = 0.0, beforePrevious = 0.0;
    for (qint64 i = begin; i < begin + count; ++i) {
        const double current = mSamples[size_t(i)] + coefficient * previous - beforePrevious;
        beforePrevious = previous;
        previous = current;
    }
    return previous * previous + beforePrevious * beforePrevious - coefficient * previous * beforePrevious;
}

double WavReader::energy(qint64 begin, qint64 count) const
{
    double sum = 0.0;
    for (qint64 i = begin; i < begin + count; ++i)
        sum += double(mSamples[size_t(i)]) * mSamples[size_t(i)];
    return sum;
}

QList<int> WavReader::steppedSecondsIn(const QString& path, double windowSeconds)
{
    WavReader reader;
    QString error;
    if (!reader.load(path, &error))
        qWarning("%s", qPrintable(error));
    return reader.steppedSeconds(windowSeconds);
}

QList<int> WavReader::secondsFromTo(int first, int last)
{
    QList<int> seconds;
    for (int k = first; k <= last; ++k)
        seconds.append(k);
    return seconds;
}
