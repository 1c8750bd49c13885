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
// Exit status: 0 when the item (every item) played to its end, or for the seconds asked; 1 on
// a playback error; 2 on a usage error or a bad setting.

#include "media_server/CachingGStreamerWrapper.h"
#include "media_server/GStreamerMediaFIFO.h"
#include "media_server/GStreamerPlayer.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/Finalizer.h"
#include "platform/core/ProcessExit.h"
#include "platform/core/RuntimeEnv.h"
#include "platform/log/Logger.h"
#include "tools/play/ItemSequencePlayer.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QTimer>

#include <cstdio>

using MediaV2::GStreamerMediaFIFO;
using MediaV2::GStreamerPlayer;
using MediaV2::MediaPlaybackMetadata;

namespace {

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
    if (parser.isSet(QStringLiteral("sink")))
        ConfigStore::instance()->set(QStringLiteral("gstreamer/audio_sink"), parser.value(QStringLiteral("sink")), nullptr);
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

bool isCount(const QCommandLineParser& parser, const QString& option)
{
    bool ok = false;
    return parser.value(option).toInt(&ok) >= 1 && ok;
}

// The reason the command line cannot be used, empty when it can.
QString usageError(const QCommandLineParser& parser)
{
    if (parser.positionalArguments().size() != 1)
        return QStringLiteral("give one file or URL (see --help)");
    if (!isCount(parser, QStringLiteral("seconds")))
        return QStringLiteral("--seconds takes a whole number of seconds, 1 or more");
    if (parser.isSet(QStringLiteral("key")) && !isCount(parser, QStringLiteral("duration")))
        return QStringLiteral("--key needs --duration, the item's length in milliseconds");
    if (parser.isSet(QStringLiteral("next"))
        && (!parser.isSet(QStringLiteral("key")) || parser.value(QStringLiteral("next-key")).isEmpty()
            || !isCount(parser, QStringLiteral("next-duration"))))
        return QStringLiteral("--next needs --key, --next-key and --next-duration");
    return QString();
}

void addOptions(QCommandLineParser* parser)
{
    parser->addHelpOption();
    parser->addOption({QStringLiteral("sink"), QStringLiteral("Audio sink as a GStreamer bin description."), QStringLiteral("DESCRIPTION")});
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

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Plays one item through the playback engine until it ends."));
    addOptions(&parser);
    parser.process(app);
    const QString error = usageError(parser);
    if (!error.isEmpty()) {
        std::fprintf(stderr, "cabin-play: %s\n", qPrintable(error));
        return 2;
    }
    qInstallMessageHandler(&Logger::handleQtLogMessage);
    if (!RuntimeEnv::instance()->setFromArgs(argc, argv)) {
        std::fprintf(stderr, "cabin-play: %s\n", qPrintable(RuntimeEnv::instance()->error()));
        return 2;
    }
    exitAfterShutdown(play(parser));
}
