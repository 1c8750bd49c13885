// cabin-tone: the stepped-tone items the tests use, for demos and benchmarks. Second k of an
// item is a sine at 300 + 20·k Hz, so a recording shows which second played when.
//
//   cabin-tone make SECONDS [mp3|ogg|wav]   prints the path of the (cached) generated item
//   cabin-tone seconds RECORDING.wav        prints, per second of the recording, which second
//                                           of the item it holds
// Exit status: 0 done, 1 failure, 2 usage error.

#include "tests/support/SteppedTone.h"
#include "tests/support/WavReader.h"

#include <QCoreApplication>
#include <QStringList>

#include <cstdio>

namespace {

int make(const QStringList& args)
{
    bool ok = false;
    const int seconds = args.value(0).toInt(&ok);
    const QString kind = args.value(1, QStringLiteral("mp3"));
    const SteppedTone::Format format = kind == QLatin1String("ogg") ? SteppedTone::Format::Ogg
        : kind == QLatin1String("wav")                               ? SteppedTone::Format::Wav
                                                                     : SteppedTone::Format::Mp3;
    if (!ok || seconds < 1) {
        std::fputs("cabin-tone: make SECONDS [mp3|ogg|wav]\n", stderr);
        return 2;
    }
    QString error;
    const QString path = SteppedTone::file(format, seconds, &error);
    if (path.isEmpty()) {
        std::fprintf(stderr, "cabin-tone: %s\n", qPrintable(error));
        return 1;
    }
    std::printf("%s\n", qPrintable(path));
    return 0;
}

int seconds(const QStringList& args)
{
    WavReader reader;
    QString error;
    if (args.size() != 1 || !reader.load(args.first(), &error)) {
        std::fprintf(stderr, "cabin-tone: %s\n", args.size() != 1 ? "seconds RECORDING.wav" : qPrintable(error));
        return args.size() != 1 ? 2 : 1;
    }
    const QList<int> found = reader.steppedSeconds();
    const QList<double> frequencies = reader.dominantFrequencies();
    std::printf("%.1f s recorded, %.2f s of silence first\n", reader.durationSeconds(), reader.leadingSilenceSeconds());
    for (int i = 0; i < found.size(); ++i)
        std::printf("second %d of the recording: %4.0f Hz = second %d of the item\n", i, frequencies.value(i), found.at(i));
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QStringList args = app.arguments().mid(1);
    const QString command = args.isEmpty() ? QString() : args.takeFirst();
    if (command == QLatin1String("make"))
        return make(args);
    if (command == QLatin1String("seconds"))
        return seconds(args);
    std::fputs("usage: cabin-tone make SECONDS [mp3|ogg|wav] | cabin-tone seconds RECORDING.wav\n", stderr);
    return 2;
}
