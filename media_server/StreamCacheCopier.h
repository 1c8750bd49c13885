#pragma once

#include <QObject>
#include <QString>
#include <QThreadPool>

#include <atomic>
#include <memory>

namespace MediaV2 {

// Copies finished downloads into the stream folder when a hard link is impossible (the
// download buffer on another file system). The copies run on a pool of their own with at most
// `maxAtOnce` at a time, so the cache thread keeps answering lookups while a long file copies.
// Each copy grows under its ".part" name, is flushed to disk and only then renamed into place,
// so a crash or a power cut never leaves a short file under a final name.
//
// Thread: created, used and destroyed on the cache thread; copied() is emitted there. Owns its
// pool. cancelAll() (and the destructor) stops every copy at its next chunk, removes the
// ".part" files and waits for the workers. Failure: copied() carries the reason; the partial
// file is removed.
class StreamCacheCopier : public QObject
{
    Q_OBJECT
public:
    struct Copy
    {
        quint64 serial = 0;   // the store's serial, so the cache can tell which store is newest
        QString key;
        QString source;
        QString target;       // final path; the copy grows at target + ".part"
        qint64 length = 0;
        QString error;        // empty on success
    };

    explicit StreamCacheCopier(int maxAtOnce, QObject* parent = nullptr);
    ~StreamCacheCopier() override;

    void start(const Copy& copy);
    void cancelAll();
    int pending() const { return mPending; }

signals:
    void copied(MediaV2::StreamCacheCopier::Copy copy);

private:
    static QString copyFile(const Copy& copy, const std::atomic<bool>& cancelled);
    void finish(const Copy& copy);

    QThreadPool mPool;
    std::shared_ptr<std::atomic<bool>> mCancelled;
    int mPending = 0;
};

} // namespace MediaV2
