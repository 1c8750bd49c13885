#pragma once

#include <QObject>
#include <QString>

// The writer-thread half of ThreadedIncrementalFileWriter: owns the file descriptor and the
// write position, and reports every operation.
//
// A chunk is all or nothing: one that cannot be written completely (full disk, file size limit,
// I/O error) is reported as failed, the position stays where the chunk began, and any bytes it
// added past the file's previous end are cut off again. So the file holds exactly the bytes
// reported written, and a caller that retries or gives up never finds a torn tail. The chunks
// after a failed one would land in its place, so they fail too until the next seek(): the
// caller decides where writing goes on.
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
    // Writes the whole chunk at the position; on failure *error says why.
    bool writeChunk(const QByteArray& data, QString* error);
    // Removes what a failed chunk left past the old end of the file.
    void cutBackTo(qint64 size, QString* error);
    void reserve(qint64 size, QString* error);
    void cutAndRelease(qint64 size, qint64 allocatedBytes, QString* error);

    const QString mPath;
    int mFd = -1;
    qint64 mPosition = -1;   // -1 until the file is open: then its end
    qint64 mSize = -1;       // the file's length as this worker left it; -1 until open
    QString mOpenError;
    bool mHoldWrites = false;   // a chunk failed; writes fail until the next seek()
};
