// cabin-tone: the stepped-tone items the tests use, for demos and benchmarks. Second k of an
// item is a sine at 300 + 20·k Hz, so a recording shows which second played when.
//
//   cabin-tone make SECONDS [mp3|ogg|wav]   prints the path of the (cached) generated item
//   cabin-tone seconds RECORDING.wav        prints, per second of the recording, which second
//                                           of the item it holds
// Exit status: 0 done, 1 failure, 2 usage error.

#include "tests/support/SteppedTone.h"
#include "tests/support/WavReader.h"
#include "tools/common/ShellNumber.h"
#include "tools/common/ToolOutput.h"

#include <QCoreApplication>
#include <QHash>
#include <QStringList>

#include <cstdio>

namespace {

const char kProgram[] = "cabin-tone";

// MP3 at 128 kbit/s keeps frequencies up to about 16 kHz: a longer item's last steps would be
// cut by the encoder and could not be read back.
constexpr double kTopHz = 16000;
constexpr int kMaxSeconds = int((kTopHz - SteppedTone::kBaseHz) / SteppedTone::kStepHz);

const char kHelp[] =
    "Usage: cabin-tone make SECONDS [mp3|ogg|wav]\n"
    "       cabin-tone seconds RECORDING.wav\n"
    "Makes the stepped-tone items the tests use, and reads recordings of them: second k of\n"
    "an item is a sine at 300 + 20 * k Hz, so a recording shows which second played when.\n"
    "\n"
    "  make SECONDS [FORMAT]   print the path of an item SECONDS seconds long (1 to %d),\n"
    "                          generated on first use and cached; FORMAT mp3 (128 kbit/s,\n"
    "                          the default), ogg (Vorbis) or wav (16-bit PCM), 44100 Hz mono\n"
    "  seconds RECORDING.wav   print the recording's length and leading silence in seconds,\n"
    "                          then for each second its dominant frequency in Hz and the\n"
    "                          second of the item that frequency belongs to (-1: none)\n"
    "\n"
    "Exit status: 0 done, 1 failure (the item cannot be made, the recording cannot be read),\n"
    "2 usage error.\n";

int make(const QStringList& args)
{
    static const QHash<QString, SteppedTone::Format> formats{
        {QStringLiteral("mp3"), SteppedTone::Format::Mp3},
        {QStringLiteral("ogg"), SteppedTone::Format::Ogg},
        {QStringLiteral("wav"), SteppedTone::Format::Wav},
    };
    if (args.isEmpty() || args.size() > 2)
        return ToolOutput::refuse(kProgram, QStringLiteral("make takes SECONDS and an optional format (see --help)"));
    qint64 seconds = 0;
    const QString problem = ShellNumber::problem(args.first(), 1, kMaxSeconds, &seconds);
    if (!problem.isEmpty())
        return ToolOutput::refuse(kProgram, QStringLiteral("make: SECONDS ") + problem);
    const QString format = args.value(1, QStringLiteral("mp3"));
    if (!formats.contains(format))
        return ToolOutput::refuse(kProgram, QStringLiteral("make: cannot make \"%1\": the formats are mp3, ogg and wav").arg(format));
    QString error;
    const QString path = SteppedTone::file(formats.value(format), int(seconds), &error);
    if (path.isEmpty()) {
        std::fprintf(stderr, "%s: %s\n", kProgram, qPrintable(error));
        return 1;
    }
    std::printf("%s\n", qPrintable(path));
    return 0;
}

int seconds(const QStringList& args)
{
    if (args.size() != 1)
        return ToolOutput::refuse(kProgram, QStringLiteral("seconds takes one RECORDING.wav (see --help)"));
    WavReader reader;
    QString error;
    if (!reader.load(args.first(), &error)) {
        std::fprintf(stderr, "%s: %s: %s\n", kProgram, qPrintable(args.first()), qPrintable(error));
        return 1;
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
    if (command == QLatin1String("--help") || command == QLatin1String("-h")) {
        std::printf(kHelp, kMaxSeconds);
        return 0;
    }
    if (command == QLatin1String("make"))
        return make(args);
    if (command == QLatin1String("seconds"))
        return seconds(args);
    if (command.isEmpty())
        return ToolOutput::refuse(kProgram, QStringLiteral("give make or seconds (see --help)"));
    return ToolOutput::refuse(kProgram, QStringLiteral("unknown command \"%1\": make or seconds (see --help)").arg(command));
}
