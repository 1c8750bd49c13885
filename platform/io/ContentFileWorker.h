#pragma once

#include <QObject>
#include <QString>

// The writer-thread half of ThreadedFileWriter: replaces the whole file atomically (a
// temporary file beside it, written, flushed to disk, renamed over it), so a crash or a power
// cut leaves either the old content or the new one, never a torn file.
//
// Thread: FileWriterThread.
class ContentFileWorker : public QObject
{
    Q_OBJECT
public:
    explicit ContentFileWorker(const QString& path);

public slots:
    void writeContent(const QByteArray& content);

signals:
    void written(qint64 bytes, QString error);

private:
    bool writeAll(int fd, const QByteArray& content);
    QString failure(const char* what, const QString& path) const;

    const QString mPath;
};
