#pragma once

#include <QObject>
#include <QString>

// The writer-thread half of ThreadedIncrementalFileWriter: owns the file descriptor and the
// write position, and reports every operation. A chunk that cannot be written completely is
// reported as failed and the position goes back to where the chunk began, so the bytes
// reported written are exactly the bytes in the file.
//
// Thread: FileWriterThread; every slot runs there, in the order it was asked for.
class IncrementalFileWorker : public QObject
{
    Q_OBJECT
public:
    explicit IncrementalFileWorker(const QString& path);
    ~IncrementalFileWorker() override;

public slots:
    void write(const QByteArray& data);
    void seek(qint64 position);
    void resize(qint64 size);

signals:
    void written(qint64 bytes, QString error);
    void resized(qint64 size, QString error);

private:
    bool ensureOpen();
    QString failure(const char* what) const;

    const QString mPath;
    int mFd = -1;
    qint64 mPosition = -1;   // -1 until the file is open: then its end
    QString mOpenError;
};
