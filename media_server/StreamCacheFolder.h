#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

namespace MediaV2 {

// The folder of the stream cache's files. Each stored download gets a name of its own (a hash of
// its cache key plus a serial), so a newer download of a key never overwrites a file that a
// player may still be reading: the older file is unlinked and its readers keep their bytes.
// Copies grow under a ".part" name and are renamed into place complete, so a name without the
// suffix is always a whole file.
//
// Thread: the stream cache's thread. Owns nothing but paths. Failure: false or -1, with the reason where asked.
class StreamCacheFolder
{
public:
    explicit StreamCacheFolder(const QString& path = QString());

    QString path() const { return mPath; }
    bool create(QString* error) const;
    QString filePath(const QString& name) const;
    // A name no other stored file has, derived from the cache key.
    QString newName(const QString& key);
    static QString partialName(const QString& name);

    // The names of the plain files now in the folder.
    QStringList names() const;
    qint64 sizeOf(const QString& name) const;
    // Unlinks the name; a player that has the file open keeps reading its bytes.
    bool remove(const QString& name) const;
    // Free bytes on the folder's file system, -1 when unknown.
    qint64 freeBytes() const;

private:
    QString mPath;
    quint64 mSerial = 0;
};

} // namespace MediaV2
