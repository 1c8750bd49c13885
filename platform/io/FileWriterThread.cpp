#include "platform/io/FileWriterThread.h"

#include "utils/Singleton.h"

FileWriterThread::FileWriterThread()
    : SimpleTThread(QStringLiteral("FileWriterThread"), true)
{
}

QThread* FileWriterThread::thread()
{
    FileWriterThread* writerThread = Singleton<FileWriterThread>::instance();
    if (!writerThread->isRunning() && !writerThread->isFinished())
        writerThread->start();
    return writerThread;
}
