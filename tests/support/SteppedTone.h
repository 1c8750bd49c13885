#pragma once

#include <QString>

// Generated audio items whose sound says where in which item playback is: second k of a
// "stepped tone" is a sine at frequencyForSecond(k) = 300 + 20 * k Hz (mono, 44100 Hz, half
// of full scale, phase-continuous across the steps). A capture of the output, read back with
// WavReader, therefore tells which seconds played and in which order; items of different
// lengths differ in their last frequencies, and a seek shows as a jump in the sequence.
//
// Files are made by a real GStreamer pipeline (appsrc ! audioconvert ! encoder ! filesink) and
// cached in $CABIN_TEST_MEDIA_DIR (else <temp>/cabin-test-media), so a suite pays for each file
// once. Each file is written under a unique temporary name and renamed into place when the
// encoder has finished: a killed run never leaves a truncated cached file, and test processes
// running at the same time may generate the same file safely (the last rename wins; the
// contents are identical).
//
// Thread: any thread; calls may block for as long as the encoder takes (well under a second
// per minute of audio). Owns: nothing beyond the files it leaves in the cache folder.
// Failure: returns an empty path and, when asked, says why in *error.
class SteppedTone
{
public:
    enum class Format {
        Mp3,   // 128 kbit/s constant bit rate
        Ogg,   // Vorbis in Ogg
        Wav,   // 16-bit PCM
    };

    static constexpr int kSampleRate = 44100;
    static constexpr double kBaseHz = 300.0;
    static constexpr double kStepHz = 20.0;

    static double frequencyForSecond(int second) { return kBaseHz + kStepHz * second; }
    // The second whose frequency lies within half a step of hz; -1 below the first step.
    static int secondForFrequency(double hz);

    // Path of a stepped tone of the given length, generated on first use.
    static QString file(Format format, int seconds, QString* error = nullptr);
    // A file named like an MP3 whose bytes are no audio of any kind, for error paths.
    static QString corruptFile(QString* error = nullptr);

    static QString suffix(Format format);
    static QString cacheFolder();
};
