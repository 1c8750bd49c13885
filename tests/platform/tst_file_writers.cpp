// The threaded file writers and file helpers: chunks land in order and are reported, a file is
// continued at its end, resize reserves without lengthening, content is replaced whole, and
// unwritable places and a full disk are reported instead of crashing.

#include "platform/io/FileUtils.h"
#include "platform/io/FileWriterThread.h"
#include "platform/io/ThreadedFileWriter.h"
#include "platform/io/ThreadedIncrementalFileWriter.h"
#include "tests/support/SmallFileSystem.h"
#include "tests/support/TestFiles.h"

#include <QTemporaryDir>
#include <QtTest>

#include <csignal>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

// Waits for `count` reports and returns them as "bytes:error".
QStringList reports(QSignalSpy& spy, int count)
{
    QStringList texts;
    while (spy.size() < count && spy.wait(5000)) {
    }
    for (const QList<QVariant>& arguments : spy)
        texts.append(arguments.at(0).toString() + QLatin1Char(':') + arguments.at(1).toString());
    return texts;
}

// Lowers the process's file size limit (writes past it fail with EFBIG instead of raising
// SIGXFSZ) and restores it: a full disk that any user can have.
class FileSizeLimit
{
public:
    explicit FileSizeLimit(rlim_t bytes)
    {
        ::getrlimit(RLIMIT_FSIZE, &mSaved);
        mSavedHandler = ::signal(SIGXFSZ, SIG_IGN);
        struct rlimit limit = mSaved;
        limit.rlim_cur = bytes;
        mApplied = ::setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }
    ~FileSizeLimit()
    {
        ::setrlimit(RLIMIT_FSIZE, &mSaved);
        ::signal(SIGXFSZ, mSavedHandler);
    }
    bool applied() const { return mApplied; }

private:
    struct rlimit mSaved;
    sighandler_t mSavedHandler;
    bool mApplied = false;
};

} // namespace

class TestFileWriters : public QObject
{
    Q_OBJECT
private slots:
    // An existing file is continued at its end; a seek places the next chunk.
    void chunksContinueTheFileInOrderAndAreReported()
    {
        const QString path = mDir.filePath(QStringLiteral("order.bin"));
        QFile existing(path);
        QVERIFY(existing.open(QIODevice::WriteOnly) && existing.write("0123456789") == 10);
        existing.close();
        ThreadedIncrementalFileWriter writer(path);
        QSignalSpy written(&writer, &ThreadedIncrementalFileWriter::dataWritten);
        writer.write("first-");
        writer.write("second-");
        writer.seek(10);
        writer.write("FIRST");
        QCOMPARE(reports(written, 3), (QStringList{"6:", "7:", "5:"}));
        QCOMPARE(fileContents(path), QByteArray("0123456789FIRST-second-"));
    }

    // A player reading the growing file must never meet bytes that were not written.
    void resizeReservesButNeverLengthens()
    {
        const QString path = mDir.filePath(QStringLiteral("reserve.bin"));
        ThreadedIncrementalFileWriter writer(path);
        QSignalSpy written(&writer, &ThreadedIncrementalFileWriter::dataWritten);
        QSignalSpy resized(&writer, &ThreadedIncrementalFileWriter::resized);
        writer.write(QByteArray(1000, 'x'));
        writer.resize(4 * 1024 * 1024);
        QCOMPARE(reports(resized, 1), QStringList{"4194304:"});
        QCOMPARE(FileUtils::fileSize(path), qint64(1000));
        struct stat info;
        QCOMPARE(::stat(path.toLocal8Bit().constData(), &info), 0);
        QVERIFY2(qint64(info.st_blocks) * 512 >= 4 * 1024 * 1024, "the room was not reserved");
        // Resizing to its own size gives the reservation back: a cache counting file sizes cannot
        // see reserved blocks.
        writer.resize(1000);
        QCOMPARE(reports(resized, 2).last(), QStringLiteral("1000:"));
        QCOMPARE(::stat(path.toLocal8Bit().constData(), &info), 0);
        QVERIFY2(qint64(info.st_blocks) * 512 < 1024 * 1024, qPrintable(QString::number(qint64(info.st_blocks) * 512)));
        writer.resize(400);
        QCOMPARE(reports(resized, 3).last(), QStringLiteral("400:"));
        writer.write("end");
        QCOMPARE(reports(written, 2).last(), QStringLiteral("3:"));
        QCOMPARE(fileContents(path), QByteArray(400, 'x') + "end");
    }

    void unwritablePlaceIsReported()
    {
        // Not a folder at all: refused even for root, who may write into read-only folders.
        const QString path = QStringLiteral("/proc/version/cache.bin");
        ThreadedIncrementalFileWriter writer(path);
        QSignalSpy written(&writer, &ThreadedIncrementalFileWriter::dataWritten);
        writer.write("data");
        writer.write("more");
        QCOMPARE(reports(written, 2), (QStringList{"-1:cannot open /proc/version/cache.bin: Not a directory",
                                                   "-1:cannot open /proc/version/cache.bin: Not a directory"}));
        ThreadedFileWriter info(QStringLiteral("/proc/version/info.txt"));
        QSignalSpy infoWritten(&info, &ThreadedFileWriter::dataWritten);
        info.writeContent("{}");
        QVERIFY(reports(infoWritten, 1).first().startsWith(QLatin1String("-1:cannot create a file beside /proc/version/info.txt: ")));
    }

    // Reserving room on a full disk fails at once instead of in mid-download. A failed write is
    // proved below by the file size limit, which runs everywhere.
    void fullDiskFailsTheReservation()
    {
        SmallFileSystem small(mDir.filePath(QStringLiteral("small")));
        if (!small.mounted())
            QSKIP("cannot mount a small tmpfs here (needs CAP_SYS_ADMIN)");
        const QString path = mDir.filePath(QStringLiteral("small/cache.bin"));
        ThreadedIncrementalFileWriter writer(path);
        QSignalSpy resized(&writer, &ThreadedIncrementalFileWriter::resized);
        writer.resize(1024 * 1024);
        QCOMPARE(reports(resized, 1).first(), QStringLiteral("-1:cannot reserve room for %1: No space left on device").arg(path));
    }

    // A file size limit fails writes as a full disk does. The third chunk fails part-way; the
    // file keeps exactly the bytes reported written.
    void fileSizeLimitIsReportedAndNoPartialChunkStays()
    {
        const QString path = mDir.filePath(QStringLiteral("limited.bin"));
        const int chunk = 48 * 1024;
        ThreadedIncrementalFileWriter writer(path);
        QSignalSpy written(&writer, &ThreadedIncrementalFileWriter::dataWritten);
        {
            FileSizeLimit limit(100 * 1024);
            QVERIFY(limit.applied());
            for (int i = 0; i < 3; ++i)
                writer.write(QByteArray(chunk, char('a' + i)));
            QCOMPARE(reports(written, 3), (QStringList{"49152:", "49152:", "-1:cannot write to " + path + ": File too large"}));
        }
        QCOMPARE(fileContents(path), QByteArray(chunk, 'a') + QByteArray(chunk, 'b'));
        writer.write("after");   // would land where the failed chunk belonged
        QVERIFY(reports(written, 4).last().startsWith(QLatin1String("-1:")));
        writer.seek(2 * chunk);  // the writer's owner says where writing goes on
        writer.write("after");
        QCOMPARE(reports(written, 5).last(), QStringLiteral("5:"));
        QCOMPARE(FileUtils::fileSize(path), qint64(2 * chunk + 5));
    }

    // A stalled disk makes the writer say so once, and say so again when it catches up. The writer
    // thread is held by a call that waits on a semaphore, as a slow write() would hold it.
    void backlogRisesAndFallsWithTheWriterThread()
    {
        const QString path = mDir.filePath(QStringLiteral("backlog.bin"));
        ThreadedIncrementalFileWriter writer(path);
        QSignalSpy written(&writer, &ThreadedIncrementalFileWriter::dataWritten);
        QSignalSpy high(&writer, &ThreadedIncrementalFileWriter::backlogHigh);
        QSignalSpy low(&writer, &ThreadedIncrementalFileWriter::backlogLow);
        QObject onWriterThread;
        onWriterThread.moveToThread(FileWriterThread::thread());
        QSemaphore release;
        QMetaObject::invokeMethod(&onWriterThread, [&release] { release.acquire(); }, Qt::QueuedConnection);
        const QByteArray mebibyte(1024 * 1024, 'm');
        for (int i = 0; i < 4; ++i)
            writer.write(mebibyte);
        QCOMPARE(high.size(), 0);   // at the mark, not above it
        writer.write("x");
        writer.write(mebibyte);
        QCOMPARE(high.size(), 1);
        QCOMPARE(writer.backlogBytes(), 5 * 1024 * 1024 + 1);
        qint64 backlogAtLow = -1;
        connect(&writer, &ThreadedIncrementalFileWriter::backlogLow, this, [&] { backlogAtLow = writer.backlogBytes(); });
        release.release();
        QVERIFY(low.wait(5000));
        QCOMPARE(backlogAtLow, 1024 * 1024);   // at the low mark, not only once all is written
        QCOMPARE(reports(written, 6).size(), 6);
        QCOMPARE(writer.backlogBytes(), 0);
        QCOMPARE(high.size(), 1);
        QCOMPARE(low.size(), 1);
    }

    void contentIsReplacedWhole()
    {
        const QString path = mDir.filePath(QStringLiteral("info.txt"));
        ThreadedFileWriter writer(path);
        QSignalSpy written(&writer, &ThreadedFileWriter::dataWritten);
        writer.writeContent(QByteArray(5000, 'a'));
        writer.writeContent("{\"complete\":true}");
        QCOMPARE(reports(written, 2), (QStringList{"5000:", "17:"}));
        QCOMPARE(fileContents(path), QByteArray("{\"complete\":true}"));
        QCOMPARE(FileUtils::plainFiles(mDir.path()).filter(QStringLiteral("info.txt.")), QStringList());
    }

    void filesOutsideTheKeepSetAreRemoved()
    {
        QTemporaryDir dir;
        for (const char* name : {"a_cache", "a_info.txt", "a_info.txt.Xy12Zw", "b_cache"})
            QFile(dir.filePath(QLatin1String(name))).open(QIODevice::WriteOnly);
        QDir(dir.path()).mkdir(QStringLiteral("sub"));
        const QStringList removed = FileUtils::removeFilesExcept(dir.path(), {dir.filePath(QStringLiteral("a_cache")),
                                                                               dir.filePath(QStringLiteral("a_info.txt"))});
        QCOMPARE(removed, QStringList{dir.filePath(QStringLiteral("b_cache"))});
        QVERIFY(QDir(dir.filePath(QStringLiteral("sub"))).exists());
        QVERIFY(FileUtils::freeDiskSpaceMb(dir.path()) > 0);
        QVERIFY(FileUtils::removeFolder(dir.filePath(QStringLiteral("sub"))));
        QVERIFY(!QDir(dir.filePath(QStringLiteral("sub"))).exists());
    }

private:
    QTemporaryDir mDir;
};

QTEST_GUILESS_MAIN(TestFileWriters)
#include "tst_file_writers.moc"
