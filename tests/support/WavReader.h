#pragma once

#include <QList>
#include <QString>

#include <vector>

// Reads a 16-bit PCM WAV file (a capture of the server's output, or a decoded item) and says
// which seconds of a SteppedTone it holds.
//
// Reading: any channel count (mixed down to mono) and any sample rate from 8 to 48 kHz. Chunks
// other than "fmt " and "data" are skipped. A header that was never finalised - a writer killed
// before it could seek back - is read by the bytes actually present: the RIFF size is ignored,
// and a data size of 0, 0xFFFFFFFF or one past the end of the file means "up to the end".
//
// Analysis: windows of windowSeconds are laid from the first sample that is clearly sound, so
// leading silence (encoder priming, an MP3 decoder's delay, the time before playback began)
// does not shift the windows against the tone's one-second steps; leadingSilenceSeconds() says
// how long it was. A window whose RMS is below -40 dBFS is silence. Otherwise a zero-crossing
// count (with hysteresis, over the span that actually crosses) estimates the pitch, and
// Goertzel filters at the stepped-tone frequencies around that estimate pick the strongest one.
// The winner must carry at least a fifth of the window's energy, so noise or music is not
// mistaken for a step, while a window straddling two steps is still named after its larger part
// (a part p of the window carries p squared of it). A last window shorter than half a window
// is left out. A capture that starts in the middle of a second lines its windows up with
// neither step; analyse it with half-second windows, of which every second has one clean.
//
// Thread: any one thread at a time. Owns: the decoded samples (4 bytes per frame).
// Failure: load() returns false and says why; the queries then describe an empty file.
class WavReader
{
public:
    bool load(const QString& path, QString* error = nullptr);

    int sampleRate() const { return mSampleRate; }
    int channelCount() const { return mChannelCount; }
    double durationSeconds() const;
    double leadingSilenceSeconds() const;

    // Per window: the stepped-tone frequency that dominates it, 0 for silence, -1 for sound in
    // which no stepped-tone frequency dominates.
    QList<double> dominantFrequencies(double windowSeconds = 1.0) const;
    // Per window: the tone's second index k, or -1 for silence or unrecognised sound.
    QList<int> steppedSeconds(double windowSeconds = 1.0) const;

    // The one-second steps heard in the WAV file at `path` (empty, with a warning, when it cannot
    // be read), and the steps first..last a whole capture would hold: a test compares the two.
    static QList<int> steppedSecondsIn(const QString& path, double windowSeconds = 1.0);
    static QList<int> secondsFromTo(int first, int last);

private:
    bool readFormat(const QByteArray& body, QString* error);
    void readSamples(const char* data, qint64 bytes);
    qint64 firstSoundIndex() const;
    double windowFrequency(qint64 begin, qint64 count) const;
    double estimatePitch(qint64 begin, qint64 count) const;
    double goertzelPower(qint64 begin, qint64 count, double hz) const;
    double energy(qint64 begin, qint64 count) const;

    std::vector<float> mSamples;   // mono, full scale = 1.0
    int mSampleRate = 0;
    int mChannelCount = 0;
};
