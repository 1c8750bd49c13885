// cabin-buffer-fetch: downloads one URL into the media cache folder through the download
// buffer, as the server buffers an item, and prints the buffer's states and progress; for
// demos and manual checks of resuming an interrupted download.
//
// Usage: cabin-buffer-fetch [--stop-at BYTES] [--config FILE] [--set KEY=VALUE]... URL CACHEKEY
// With --stop-at, the download is stopped (as the server stops a buffer) once BYTES are on
// disk; the next run for the same key resumes it. The buffer's log goes to stderr.
// Exit status: 0 when the item is complete or was stopped at BYTES, 1 when the download
// failed, timed out or was refused, 2 on a usage error or a bad setting.

#include "media_server/StreamingMediaBuffer.h"
#include "platform/core/Finalizer.h"
#include "platform/core/ProcessExit.h"
#include "platform/core/RuntimeEnv.h"
#include "platform/log/Logger.h"
#include "tools/common/ToolOutput.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QTimer>

#include <cstdio>
#include <memory>

using MediaV2::MediaPlaybackMetadata;
using MediaV2::StreamingMediaBuffer;

namespace {

using ToolOutput::kProgressStepPercent;
using ToolOutput::printLine;

// Prints each state; ends the event loop with 0 once every byte is on disk, 1 on a failure.
void reportStates(StreamingMediaBuffer* buffer)
{
    QObject::connect(buffer, &StreamingMediaBuffer::bufferStateChanged, buffer, [buffer](StreamingMediaBuffer::State state) {
        printLine(QStringLiteral("state: ") + StreamingMediaBuffer::nameForState(state));
        if (state == StreamingMediaBuffer::Finished)
            printLine(QStringLiteral("finished: ") + buffer->cacheFile());
        if (state >= StreamingMediaBuffer::Finished)
            QCoreApplication::exit(state == StreamingMediaBuffer::Finished ? 0 : 1);
    });
}

// Prints progress at each step of kProgressStepPercent; with stopAt >= 0, stops the download
// and ends the event loop with 0 once stopAt bytes are on disk.
void reportProgress(StreamingMediaBuffer* buffer, qint64 stopAt)
{
    auto printedStep = std::make_shared<int>(-1);
    QObject::connect(buffer, &StreamingMediaBuffer::bufferProgress, buffer,
                     [buffer, stopAt, printedStep](qreal fraction, qint64 downloaded, qint64 total) {
        const int percent = int(fraction * 100);
        if (total > 0 && percent / kProgressStepPercent > *printedStep) {
            *printedStep = percent / kProgressStepPercent;
            printLine(QStringLiteral("progress: %1 % (%2 of %3 bytes)").arg(percent).arg(downloaded).arg(total));
        }
        if (stopAt < 0 || downloaded < stopAt)
            return;
        // Writes already on their way keep reporting after stop(); this run is over.
        QObject::disconnect(buffer, nullptr, nullptr, nullptr);
        buffer->stop();
        printLine(QStringLiteral("stopped at %1 bytes").arg(downloaded));
        QCoreApplication::exit(0);
    });
}

int fetch(const QString& url, const QString& cacheKey, qint64 stopAt)
{
    MediaPlaybackMetadata item;
    item.url = url;
    item.cacheKey = cacheKey;
    item.shouldCache = false;
    auto* buffer = new StreamingMediaBuffer(item, MediaPlaybackMetadata(), nullptr);
    reportStates(buffer);
    reportProgress(buffer, stopAt);
    // Started from the event loop: a complete item reports Finished at once, and exit()
    // only ends a running loop.
    QTimer::singleShot(0, buffer, &StreamingMediaBuffer::start);
    const int status = QCoreApplication::exec();
    // The buffer's files are handed to the writer thread, which the finalisers stop only
    // after everything queued to it is written.
    delete buffer;
    Finalizer::instance()->finalize();
    return status;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Downloads one URL into the media cache folder through the download buffer."));
    parser.addHelpOption();
    parser.addOption({QStringLiteral("stop-at"), QStringLiteral("Stop the download once BYTES are on disk."), QStringLiteral("BYTES")});
    parser.addOption({QStringLiteral("config"), QStringLiteral("Settings file instead of the default one."), QStringLiteral("FILE")});
    parser.addOption({QStringLiteral("set"), QStringLiteral("Override one setting (repeatable)."), QStringLiteral("KEY=VALUE")});
    parser.addPositionalArgument(QStringLiteral("URL"), QStringLiteral("What to download."));
    parser.addPositionalArgument(QStringLiteral("CACHEKEY"), QStringLiteral("The item's cache key (names its files)."));
    parser.process(app);
    bool stopAtOk = true;
    const bool stops = parser.isSet(QStringLiteral("stop-at"));
    const qint64 stopAt = stops ? parser.value(QStringLiteral("stop-at")).toLongLong(&stopAtOk) : -1;
    if (parser.positionalArguments().size() != 2 || !stopAtOk || (stops && stopAt < 0)) {
        std::fputs("cabin-buffer-fetch: give a URL and a cache key, and --stop-at a byte count (see --help)\n", stderr);
        return 2;
    }
    qInstallMessageHandler(&Logger::handleQtLogMessage);
    if (!RuntimeEnv::instance()->setFromArgs(argc, argv)) {
        std::fprintf(stderr, "cabin-buffer-fetch: %s\n", qPrintable(RuntimeEnv::instance()->error()));
        return 2;
    }
    exitAfterShutdown(fetch(parser.positionalArguments().at(0), parser.positionalArguments().at(1), stopAt));
}
