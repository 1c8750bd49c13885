#include "platform/io/ThreadedFileWriter.h"

#include "platform/io/ContentFileWorker.h"
#include "platform/io/FileWriterThread.h"

ThreadedFileWriter::ThreadedFileWriter(const QString& path, QObject* parent)
    : QObject(parent)
    , mPath(path)
    , mWorker(new ContentFileWorker(path))
{
    mWorker->moveToThread(FileWriterThread::thread());
    connect(mWorker, &ContentFileWorker::written, this, &ThreadedFileWriter::dataWritten);
}

ThreadedFileWriter::~ThreadedFileWriter()
{
    mWorker->deleteLater();
}

void ThreadedFileWriter::writeContent(const QByteArray& content)
{
    ContentFileWorker* worker = mWorker;
    QMetaObject::invokeMethod(worker, [worker, content] { worker->writeContent(content); }, Qt::QueuedConnection);
}
