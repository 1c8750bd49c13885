// cabin-play: plays one item through the server's playback engine until it ends, the way the
// server would (pre-roll, play, end of stream), for demos and for measuring the engine.
//
// Usage: cabin-play [--sink DESCRIPTION] [--start MS] FILE-OR-URL
//        cabin-play --live [--seconds N] [--sink DESCRIPTION] URL
//        cabin-play --key KEY --duration MS [--next URL --next-key KEY --next-duration MS]
//                   [--sink DESCRIPTION] URL
// Every form also takes --config FILE and --set KEY=VALUE (repeatable), as the server does.
// With --live the URL is a radio station (or its playlist): it is downloaded by the live-stream
// FIFO and fed to the engine through "appsrc://", each title is printed as "title: TEXT" when
// it arrives, and playback stops after N seconds (10 by default); a station that ends before
// then is a playback error, as in the server.
// With --key the item goes through the source-selection wrapper, as in the server: played from
// the stream cache when the key is there, else from its download buffer while it downloads,
// paused on an underrun and resumed when enough is ahead (the duration, in ms, is what tells
// how much audio is downloaded). --next names the item expected after it: it is preloaded once
// the first download is complete and played after the first item, once its preload is over.
// Each change of state, media status and download progress is printed as it happens.
// The sink in use is printed first ("sink: ..."); an item that does not play ends with one line
// on stderr saying so, after the engine's log.
// Exit status: 0 when the item (every item) played to its end, or for the seconds asked; 1 on
// a playback error; 2 on a usage error, a missing file, an invalid sink or a bad setting.

#include "media_server/CachingGStreamerWrapper.h"
#include "media_server/GStreamerMediaFIFO.h"
#include "media_server/GStreamerPlayer.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/Finalizer.h"
#include "platform/core/ProcessExit.h"
#include "platform/core/RuntimeEnv.h"
#include "platform/log/Logger.h"
#include "tools/common/ShellNumber.h"
#include "tools/common/ToolOutput.h"
#include "tools/play/ItemSequencePlayer.h"

#include <gst/gst.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QTimer>

#include <climits>
#include <cstdio>

using MediaV2::GStreamerMediaFIFO;
using MediaV2::GStreamerPlayer;
using MediaV2::MediaPlaybackMetadata;

namespace {

const char kProgram[] = "cabin-play";

const char kNotes[] =
    "\nForms: ITEM plays a file or URL to its end; --live plays a radio station for --seconds;\n"
    "--key plays through the source-selection wrapper (with --next, the item after it too).\n"
    "Exit status: 0 played to the end (or for the seconds asked), 1 did not play to its end\n"
    "(a playback error), 2 usage error, missing file, invalid sink or bad setting.";

QUrl itemUrl(const QString& argument)
{
    const QUrl url(argument);
    return url.scheme().isEmpty() ? QUrl::fromLocalFile(QFileInfo(argument).absoluteFilePath()) : url;
}

// Ends the event loop with 0 at the end of the item, 1 on an error.
void watchForTheEnd(GStreamerPlayer* player)
{
    QObject::connect(player, &GStreamerPlayer::mediaStatusChanged, player, [](GStreamerPlayer::MediaStatus status) {
        if (status == GStreamerPlayer::EndOfMedia)
            QCoreApplication::exit(0);
    });
    QObject::connect(player, &GStreamerPlayer::stateChanged, player, [](GStreamerPlayer::State state) {
        if (state == GStreamerPlayer::Error || state == GStreamerPlayer::ErrorTimeout || state == GStreamerPlayer::ErrorForbidden)
            QCoreApplication::exit(1);
    });
}

void printTitles(GStreamerMediaFIFO* fifo)
{
    QObject::connect(fifo, &GStreamerMediaFIFO::metadataChanged, fifo, [fifo] {
        std::printf("title: %s\n", qPrintable(fifo->getAvailableMetadata().title));
        std::fflush(stdout);
    });
}

int playLive(const QString& url, int seconds)
{
    GStreamerPlayer player;
    watchForTheEnd(&player);
    MediaV2::MediaPlaybackMetadata item;
    item.url = url;
    item.liveStream = true;
    GStreamerMediaFIFO fifo(item);
    QObject::connect(&player, &GStreamerPlayer::newSourceElement, &fifo, &GStreamerMediaFIFO::playerHasNewSourceElement);
    printTitles(&fifo);
    QTimer::singleShot(seconds * 1000, &player, [] { QCoreApplication::exit(0); });
    fifo.start();
    if (!player.setMedia(QUrl(QStringLiteral("appsrc://")), true) || !player.play(0, false))
        return 1;
    const int status = QCoreApplication::exec();
    player.stop(false, GStreamerPlayer::Error);
    return status;
}

MediaPlaybackMetadata cachedItem(const QString& url, const QString& key, const QString& duration)
{
    MediaPlaybackMetadata item;
    item.url = itemUrl(url).toString(QUrl::PreferLocalFile);
    item.cacheKey = key;
    item.shouldCache = true;
    item.duration = duration.toLongLong();
    return item;
}

// The stream cache thread stops in the finalisers, after the cache has closed its database;
// the buffers' last writes are flushed by the writer thread's finaliser.
int playThroughWrapper(const QCommandLineParser& parser)
{
    QList<MediaPlaybackMetadata> items{cachedItem(parser.positionalArguments().first(), parser.value(QStringLiteral("key")),
                                                  parser.value(QStringLiteral("duration")))};
    if (parser.isSet(QStringLiteral("next")))
        items.append(cachedItem(parser.value(QStringLiteral("next")), parser.value(QStringLiteral("next-key")),
                                parser.value(QStringLiteral("next-duration"))));
    int status = 1;
    {
        MediaV2::CachingGStreamerWrapper wrapper;
        ItemSequencePlayer sequence(&wrapper, items);
        QTimer::singleShot(0, &sequence, &ItemSequencePlayer::start);
        status = QCoreApplication::exec();
        wrapper.stop();
        wrapper.cleanup();
        QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
    }
    Finalizer::instance()->finalize();
    return status;
}

int play(const QCommandLineParser& parser)
{
    if (parser.isSet(QStringLiteral("live")))
        return playLive(parser.positionalArguments().first(), parser.value(QStringLiteral("seconds")).toInt());
    if (parser.isSet(QStringLiteral("key")))
        return playThroughWrapper(parser);
    GStreamerPlayer player;
    watchForTheEnd(&player);
    if (!player.setMedia(itemUrl(parser.positionalArguments().first()), false)
        || !player.play(parser.value(QStringLiteral("start")).toLongLong(), false))
        return 1;
    return QCoreApplication::exec();
}

// Why the number an option holds cannot be used; empty when it can.
QString numberProblem(const QCommandLineParser& parser, const QString& option, qint64 min, qint64 max)
{
    qint64 value = 0;
    const QString problem = ShellNumber::problem(parser.value(option), min, max, &value);
    return problem.isEmpty() ? problem : QStringLiteral("--%1 %2").arg(option, problem);
}

// A local file that is not there; URLs are the engine's to try.
QString missingFile(const QString& item)
{
    return QUrl(item).scheme().isEmpty() && !QFileInfo::exists(item) ? QStringLiteral("no such file: ") + item : QString();
}

// The reason the command line cannot be used, empty when it can.
QString usageError(const QCommandLineParser& parser)
{
    if (parser.positionalArguments().size() != 1)
        return QStringLiteral("give one file or URL (see --help)");
    const QString key = QStringLiteral("key"), next = QStringLiteral("next");
    QStringList problems{numberProblem(parser, QStringLiteral("start"), 0, LLONG_MAX),
                         numberProblem(parser, QStringLiteral("seconds"), 1, INT_MAX / 1000),
                         missingFile(parser.positionalArguments().first())};
    if (parser.isSet(key) && !parser.isSet(QStringLiteral("duration")))
        problems.append(QStringLiteral("--key needs --duration, the item's length in milliseconds"));
    if (parser.isSet(next) && (!parser.isSet(key) || parser.value(QStringLiteral("next-key")).isEmpty()
                               || !parser.isSet(QStringLiteral("next-duration"))))
        problems.append(QStringLiteral("--next needs --key, --next-key and --next-duration"));
    if (parser.isSet(key))
        problems << numberProblem(parser, QStringLiteral("duration"), 1, INT_MAX);
    if (parser.isSet(next))
        problems << numberProblem(parser, QStringLiteral("next-duration"), 1, INT_MAX) << missingFile(parser.value(next));
    problems.removeAll(QString());
    return problems.value(0);
}

// The sink the engine will use: --sink, else the setting, else GStreamer's default. An
// invalid description is refused here: the engine would fall back to the default without a
// word on stdout.
bool chooseSink(const QCommandLineParser& parser, QString* error)
{
    const QString key = QStringLiteral("gstreamer/audio_sink");
    if (parser.isSet(QStringLiteral("sink")))
        ConfigStore::instance()->set(key, parser.value(QStringLiteral("sink")), nullptr);
    QString sink;
    if (!ConfigStore::instance()->lookup(key, &sink) || sink.isEmpty()) {
        ToolOutput::printLine(QStringLiteral("sink: autoaudiosink (the default: the first sound output GStreamer finds)"));
        return true;
    }
    gst_init(nullptr, nullptr);
    GError* parseError = nullptr;
    GstElement* bin = gst_parse_bin_from_description(qPrintable(sink), TRUE, &parseError);
    if (bin)
        gst_object_unref(bin);
    if (parseError) {
        *error = QStringLiteral("%1 \"%2\" is not a sink GStreamer can make: %3")
                     .arg(parser.isSet(QStringLiteral("sink")) ? QStringLiteral("--sink") : key, sink, QString::fromUtf8(parseError->message));
        g_error_free(parseError);
        return false;
    }
    ToolOutput::printLine(QStringLiteral("sink: ") + sink);
    return true;
}

void addOptions(QCommandLineParser* parser)
{
    // Qt's own help option adds --help-all, which lists Qt's options rather than ours.
    parser->addOption({{QStringLiteral("h"), QStringLiteral("help")}, QStringLiteral("Show this help.")});
    parser->addOption({QStringLiteral("sink"), QStringLiteral("Audio sink as a GStreamer bin description (default: the setting gstreamer/audio_sink, else autoaudiosink)."), QStringLiteral("DESCRIPTION")});
    parser->addOption({QStringLiteral("start"), QStringLiteral("Start position in milliseconds."), QStringLiteral("MS"), QStringLiteral("0")});
    parser->addOption({QStringLiteral("live"), QStringLiteral("Play URL as a radio station through the live-stream FIFO, printing its titles.")});
    parser->addOption({QStringLiteral("seconds"), QStringLiteral("With --live: stop after this many seconds."), QStringLiteral("N"), QStringLiteral("10")});
    parser->addOption({QStringLiteral("key"), QStringLiteral("Play URL through the source-selection wrapper under this cache key."), QStringLiteral("KEY")});
    parser->addOption({QStringLiteral("duration"), QStringLiteral("With --key: the item's length in milliseconds."), QStringLiteral("MS")});
    parser->addOption({QStringLiteral("next"), QStringLiteral("With --key: the item to preload and play next."), QStringLiteral("URL")});
    parser->addOption({QStringLiteral("next-key"), QStringLiteral("The next item's cache key."), QStringLiteral("KEY")});
    parser->addOption({QStringLiteral("next-duration"), QStringLiteral("The next item's length in milliseconds."), QStringLiteral("MS")});
    parser->addOption({QStringLiteral("config"), QStringLiteral("Settings file instead of the default one."), QStringLiteral("FILE")});
    parser->addOption({QStringLiteral("set"), QStringLiteral("Override one setting (repeatable)."), QStringLiteral("KEY=VALUE")});
    parser->addPositionalArgument(QStringLiteral("ITEM"), QStringLiteral("A file or a URL."));
}

// The command line's refusal, the help, or -1 to go on.
int checkCommandLine(QCommandLineParser* parser, const QStringList& arguments)
{
    if (!parser->parse(arguments))
        return ToolOutput::refuse(kProgram, ToolOutput::parseError(*parser) + QStringLiteral(" (see --help)"));
    if (parser->isSet(QStringLiteral("help"))) {
        std::printf("%s%s\n", qPrintable(parser->helpText()), kNotes);
        return 0;
    }
    const QString error = usageError(*parser);
    return error.isEmpty() ? -1 : ToolOutput::refuse(kProgram, error);
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Plays one item through the playback engine until it ends."));
    addOptions(&parser);
    const int refused = checkCommandLine(&parser, app.arguments());
    if (refused >= 0)
        return refused;
    qInstallMessageHandler(&Logger::handleQtLogMessage);
    QString error;
    if (!RuntimeEnv::instance()->setFromArgs(argc, argv))
        return ToolOutput::refuse(kProgram, RuntimeEnv::instance()->error());
    if (!chooseSink(parser, &error))
        return ToolOutput::refuse(kProgram, error);
    const int status = play(parser);
    if (status != 0)
        std::fprintf(stderr, "%s: %s did not play to its end (the log above says why)\n", kProgram, qPrintable(parser.positionalArguments().first()));
    exitAfterShutdown(status);
}
