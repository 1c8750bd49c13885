// The cabin-media-server process: checks its command line, starts the platform and the media
// server in a fixed order, runs the event loop until SIGTERM or SIGINT, then stops playback and
// finalises the platform before exiting 0.

#include "app/CommandLine.h"
#include "app/ConfigTable.h"
#include "media_server/GStreamerServerPlayer.h"
#include "media_server/MediaServerDataValues.h"
#include "mpris/MprisBridge.h"
#include "platform/core/Finalizer.h"
#include "platform/core/HeapTrimmer.h"
#include "platform/core/HeapTuning.h"
#include "platform/core/ProcessExit.h"
#include "platform/core/RuntimeEnv.h"
#include "platform/core/SignalHandlers.h"
#include "platform/core/StandardStreams.h"
#include "platform/core/TagTracer.h"
#include "platform/datavalue/DataValueManager.h"
#include "platform/log/LogLine.h"
#include "platform/net/NetDownloader.h"
#include "platform/net/URLResolver.h"
#include "platform/service/ServiceManager.h"
#include "platform/service/SystemdNotifier.h"
#include "vehicle/VehicleDataValues.h"

#include <QCoreApplication>

#include <cstdio>
#include <memory>
#include <unistd.h>

namespace {

void print(FILE* stream, const QString& text)
{
    std::fputs(text.toLocal8Bit().constData(), stream);
    std::fflush(stream);
}

// The order matters: configuration overrides arrive in step 9, so nothing may read a setting
// for behaviour before that; the player exists before the event loop can deliver a request.
// The services registered at static initialisation are served from here on; requests are
// dispatched once the event loop runs.
bool startServing()
{
    return ServiceManager::instance()->start();
}

void startUp(QCoreApplication& app, int argc, char** argv)
{
    // 1. URLResolver::init() ran before the application object (see run()).
    // 2. The application object exists (made by the caller).
    tag_tracer_init();                                                        // 3
    app.setOrganizationName(QStringLiteral("KelvraMotors"));                  // 4
    app.setOrganizationDomain(QStringLiteral("com.kelvramotors"));
    app.setApplicationName(QStringLiteral("CabinMediaServer2"));
    registerSignalHandlers();                                                 // 5
    qInstallMessageHandler(&Logger::handleQtLogMessage);                      // 6
    NetDownloader::setNetStats(&MEDIA2_connNetStats);                         // 7
    MEDIA2_connNetStats.setLinkStateValue(&LINK_linkState);
    DataValueManager::instance()->loadInitialValues();                        // 8
    RuntimeEnv::instance()->setFromArgs(argc, argv);                          // 9
    LOG_INFO << "CabinMediaServer2 " << CABIN_VERSION << " starting, pid " << qint64(::getpid())
             << ", settings file " << RuntimeEnv::instance()->settingsFile();
    DataValueManager::instance()->startLogging(&MEDIA2_serverState);          // 10
    DataValueManager::instance()->startLogging(&MEDIA2_nowPlayingTitle);
    MediaV2::GStreamerServerPlayer::instance();                               // 11
    ServiceManager::instance()->setConnectionUsage(&MEDIA2_connNetStats);     // 12
}

// The desktop media-player bridge is an extra: without its name the server serves on, and
// says what will not work.
std::unique_ptr<MprisBridge> startMpris()
{
    if (!MprisBridge::enabled()) {
        LOG_INFO << "media-player bridge off (mpris/enabled is false)";
        return nullptr;
    }
    auto bridge = std::make_unique<MprisBridge>();
    QString error;
    if (!bridge->start(ServiceManager::instance()->connection(), &error)) {
        LOG_WARN << error << " on " << ServiceManager::instance()->busDescription()
                 << "; playerctl and media keys will not reach this server";
        return nullptr;
    }
    LOG_INFO << "media-player bridge: " << MprisBridge::busName() << " at " << MprisBridge::objectPath();
    return bridge;
}

// Playback stops before the finalisers tear down what it uses.
void shutDown()
{
    LOG_INFO << "event loop ended, shutting down";
    MediaV2::GStreamerServerPlayer::instance()->stop();                       // 1
    ServiceManager::instance()->reportPublishers();
    Finalizer::instance()->finalize();                                        // 2
    LOG_INFO << "stopped";
    Logger::flush();
}

// Runs the server; returns the exit status once the application object is gone.
int run(int argc, char** argv)
{
    URLResolver::init();                                                      // 1
    QCoreApplication app(argc, argv);
    startUp(app, argc, argv);
    if (!startServing()) {
        Finalizer::instance()->finalize();
        return 1;
    }
    std::unique_ptr<MprisBridge> mpris = startMpris();
    // Ready once the names are owned and the player exists; systemd then shows the state.
    SystemdNotifier systemd;
    systemd.followStatus(&MEDIA2_serverState, QStringLiteral("state "));
    systemd.ready(QStringLiteral("state ") + MEDIA2_serverState.toString());
    HeapTrimmer heapTrimmer;
    heapTrimmer.start();
    LOG_INFO << "running";
    const int status = app.exec();                                            // 13
    systemd.stopping();
    mpris.reset();
    shutDown();
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    tuneHeapForLongRuns();
    openMissingStandardStreams();
    CommandLine commandLine;
    switch (commandLine.parse(argc, argv)) {
    case CommandLine::Help:
        print(stdout, CommandLine::usage());
        return 0;
    case CommandLine::Version:
        print(stdout, CommandLine::version() + QLatin1Char('\n'));
        return 0;
    case CommandLine::Invalid:
        print(stderr, QStringLiteral("cabin-media-server: ") + commandLine.error() + QLatin1Char('\n'));
        return 2;
    case CommandLine::ListConfig:
        RuntimeEnv::instance()->setFromArgs(argc, argv);
        Logger::flush();
        print(stdout, ConfigTable::text(commandLine.verbose()));
        return 0;
    case CommandLine::Run:
        break;
    }
    exitAfterShutdown(run(argc, argv));
}
