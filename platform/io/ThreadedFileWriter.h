#pragma once

#include <QObject>
#include <QString>

class ContentFileWorker;

// Replaces a small file's whole content on the process's file-writer thread, atomically (see
// ContentFileWorker), for files that must never be torn, such as a download's info file. Each
// writeContent() is reported with dataWritten(bytes, "") or dataWritten(-1, why).
//
// Thread: created and used on its owner's thread; the work happens on FileWriterThread, in
// order. Owns its worker. Failure: reported, never a crash; the old content then stays.
class ThreadedFileWriter : public QObject
{
    Q_OBJECT
public:
    explicit ThreadedFileWriter(const QString& path, QObject* parent = nullptr);
    ~ThreadedFileWriter() override;

    QString path() const { return mPath; }
    void writeContent(const QByteArray& content);

signals:
    void dataWritten(qint64 bytes, QString error);

private:
    const QString mPath;
    ContentFileWorker* mWorker;
};
