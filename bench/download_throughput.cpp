// Downloads one URL with NetDownloader into a file through ThreadedIncrementalFileWriter, the
// way the media buffer does (a disk that falls behind pauses the download), and prints the
// rate and this process's peak RSS.
//
// Usage: bench-download-throughput URL OUTPUT-FILE

#include "platform/io/ThreadedIncrementalFileWriter.h"
#include "platform/net/NetDownloader.h"

#include <QCoreApplication>
#include <QElapsedTimer>

#include <cstdio>
#include <sys/resource.h>

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    if (argc != 3) {
        std::fprintf(stderr, "usage: bench-download-throughput URL OUTPUT-FILE\n");
        return 2;
    }
    NetDownloader downloader(0, QString::fromLocal8Bit(argv[1]), true);
    ThreadedIncrementalFileWriter writer(QString::fromLocal8Bit(argv[2]));
    qint64 received = 0, written = 0;
    bool downloadDone = false, failed = false;
    QObject::connect(&downloader, &NetDownloader::dataAvailable, [&](const QByteArray& chunk) {
        received += chunk.size();
        writer.write(chunk);
    });
    QObject::connect(&writer, &ThreadedIncrementalFileWriter::backlogHigh, &downloader, &NetDownloader::pause);
    QObject::connect(&writer, &ThreadedIncrementalFileWriter::backlogLow, &downloader, &NetDownloader::resume);
    auto finishIfDone = [&] {
        if (downloadDone && written == received)
            QCoreApplication::quit();
    };
    QObject::connect(&writer, &ThreadedIncrementalFileWriter::dataWritten, [&](qint64 bytes, const QString& error) {
        if (bytes < 0) {
            std::fprintf(stderr, "write failed: %s\n", qPrintable(error));
            failed = true;
            QCoreApplication::quit();
            return;
        }
        written += bytes;
        finishIfDone();
    });
    QObject::connect(&downloader, &NetDownloader::downloadComplete, [&](NetDownloader*, NetDownloader::Status status) {
        downloadDone = true;
        failed = failed || status != NetDownloader::Success;
        if (failed)
            QCoreApplication::quit();
        finishIfDone();
    });
    QElapsedTimer timer;
    timer.start();
    downloader.startDownload();
    app.exec();
    const double seconds = timer.nsecsElapsed() / 1e9;
    struct rusage usage;
    getrusage(RUSAGE_SELF, &usage);
    std::printf("%lld bytes in %.3f s: %.1f MB/s, peak RSS %.1f MiB\n", written, seconds, written / 1e6 / seconds,
                usage.ru_maxrss / 1024.0);
    return failed ? 1 : 0;
}
