#include "platform/io/ThreadedIncrementalFileWriter.h"

#include "platform/io/FileWriterThread.h"
#include "platform/io/IncrementalFileWorker.h"

ThreadedIncrementalFileWriter::ThreadedIncrementalFileWriter(const QString& path, QObject* parent)
    : QObject(parent)
    , mPath(path)
    , mWorker(new IncrementalFileWorker(path))
{
    mWorker->moveToThread(FileWriterThread::thread());
    connect(mWorker, &IncrementalFileWorker::written, this, &ThreadedIncrementalFileWriter::dataWritten);
    connect(mWorker, &IncrementalFileWorker::resized, this, &ThreadedIncrementalFileWriter::resized);
}

ThreadedIncrementalFileWriter::~ThreadedIncrementalFileWriter()
{
    mWorker->deleteLater();
}

void ThreadedIncrementalFileWriter::write(const QByteArray& data)
{
    IncrementalFileWorker* worker = mWorker;
    QMetaObject::invokeMethod(worker, [worker, data] { worker->write(data); }, Qt::QueuedConnection);
}

void ThreadedIncrementalFileWriter::seek(qint64 position)
{
    IncrementalFileWorker* worker = mWorker;
    QMetaObject::invokeMethod(worker, [worker, position] { worker->seek(position); }, Qt::QueuedConnection);
}

void ThreadedIncrementalFileWriter::resize(qint64 size)
{
    IncrementalFileWorker* worker = mWorker;
    QMetaObject::invokeMethod(worker, [worker, size] { worker->resize(size); }, Qt::QueuedConnection);
}
