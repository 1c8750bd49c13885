// cabin-play: plays one item through the server's playback engine until it ends, the way the
// server would (pre-roll, play, end of stream), for demos and for measuring the engine.
//
// Usage: cabin-play [--sink DESCRIPTION] [--start MS] FILE-OR-URL
// Exit status: 0 when the item played to its end, 1 on a playback error, 2 on a usage error.

#include "media_server/GStreamerPlayer.h"
#include "platform/config/ConfigStore.h"
#include "platform/core/ProcessExit.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QFileInfo>

#include <cstdio>

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

int play(const QCommandLineParser& parser)
{
    if (parser.isSet(QStringLiteral("sink")))
        ConfigStore::instance()->set(QStringLiteral("gstreamer/audio_sink"), parser.value(QStringLiteral("sink")), nullptr);
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
    parser.addPositionalArgument(QStringLiteral("ITEM"), QStringLiteral("A file or a URL."));
    parser.process(app);
    if (parser.positionalArguments().size() != 1) {
        std::fputs("cabin-play: give one file or URL (see --help)\n", stderr);
        return 2;
    }
    exitAfterShutdown(play(parser));
}
