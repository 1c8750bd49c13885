// cabin-play: plays one item through the server's playback engine until it ends, the way the
// server would (pre-roll, play, end of stream), for demos and for measuring the engine.
//
// Usage: cabin-play [--sink DESCRIPTION] [--start MS] FILE-OR-URL
//        cabin-play --live [--seconds N] [--sink DESCRIPTION] URL
// With --live the URL is a radio station (or its playlist): it is downloaded by the live-stream
// FIFO and fed to the engine through "appsrc://", each title is printed as "title: TEXT" when
// it arrives, and playback stops after N seconds (10 by default); a station that ends before
// then is a playback error, as in the server.
// Exit status: 0 when the item played to its end (or for the seconds asked), 1 on a playback
// error, 2 on a usage error.

#include "media_server/GStreamerMediaFIFO.h"
#include "media_server/GStreamerPlayer.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/ProcessExit.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>
#include <QTimer>

#include <cstdio>

using MediaV2::GStreamerMediaFIFO;
using MediaV2::GStreamerPlayer;

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

int play(const QCommandLineParser& parser)
{
    if (parser.isSet(QStringLiteral("sink")))
        ConfigStore::instance()->set(QStringLiteral("gstreamer/audio_sink"), parser.value(QStringLiteral("sink")), nullptr);
    if (parser.isSet(QStringLiteral("live")))
        return playLive(parser.positionalArguments().first(), parser.value(QStringLiteral("seconds")).toInt());
    GStreamerPlayer player;
    watchForTheEnd(&player);
    if (!player.setMedia(itemUrl(parser.positionalArguments().first()), false)
        || !player.play(parser.value(QStringLiteral("start")).toLongLong(), false))
        return 1;
    return QCoreApplication::exec();
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Plays one item through the playback engine until it ends."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("sink"), QStringLiteral("Audio sink as a GStreamer bin description."), QStringLiteral("DESCRIPTION")});
    parser.addOption({QStringLiteral("start"), QStringLiteral("Start position in milliseconds."), QStringLiteral("MS"), QStringLiteral("0")});
    parser.addOption({QStringLiteral("live"), QStringLiteral("Play URL as a radio station through the live-stream FIFO, printing its titles.")});
    parser.addOption({QStringLiteral("seconds"), QStringLiteral("With --live: stop after this many seconds."), QStringLiteral("N"), QStringLiteral("10")});
    parser.addPositionalArgument(QStringLiteral("ITEM"), QStringLiteral("A file or a URL."));
    parser.process(app);
    if (parser.positionalArguments().size() != 1) {
        std::fputs("cabin-play: give one file or URL (see --help)\n", stderr);
        return 2;
    }
    bool secondsOk = false;
    if (parser.value(QStringLiteral("seconds")).toInt(&secondsOk) < 1 || !secondsOk) {
        std::fputs("cabin-play: --seconds takes a whole number of seconds, 1 or more\n", stderr);
        return 2;
    }
    exitAfterShutdown(play(parser));
}
