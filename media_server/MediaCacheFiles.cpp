#include "media_server/MediaCacheFiles.h"

#include "platform/io/FileUtils.h"
#include "platform/io/StorageUtils.h"
#include "platform/log/LogLine.h"

#include <QCryptographicHash>
#include <QFile>
#include <QFileInfo>

namespace MediaV2 {

namespace MediaCacheFiles {

QString hashForKey(const QString& key)
{
    return QString::fromLatin1(QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Md5).toHex());
}

QString cacheFileName(const QString& key)
{
    return QStringLiteral("%1/%2_cache").arg(StorageUtils::mediaCacheFolder(), hashForKey(key));
}

QString infoFileName(const QString& key)
{
    return QStringLiteral("%1/%2_info.txt").arg(StorageUtils::mediaCacheFolder(), hashForKey(key));
}

namespace {

// A kept file's temporary sibling ("<name>.XXXXXX", an info file being replaced) is kept too,
// or the replacement in flight would fail.
bool isKept(const QString& file, const QSet<QString>& keep)
{
    if (keep.contains(file))
        return true;
    for (const QString& kept : keep)
        if (file.startsWith(kept + QLatin1Char('.')))
            return true;
    return false;
}

} // namespace

void cleanupDirectory(const QString& dir, const QSet<QString>& keep)
{
    for (const QString& file : FileUtils::plainFiles(dir)) {
        if (isKept(file, keep))
            continue;
        LOG_INFO << "Deleting " << file;
        if (!QFile::remove(file))
            LOG_WARN << "could not delete " << file;
    }
}

void keepOnlyFilesOf(const QStringList& keys)
{
    const QString alternate = StorageUtils::alternateMediaCacheFolder();
    cleanupDirectory(alternate, {});
    FileUtils::removeFolder(alternate);
    QSet<QString> keep;
    for (const QString& key : keys) {
        if (key.isEmpty())
            continue;
        keep.insert(QFileInfo(cacheFileName(key)).absoluteFilePath());
        keep.insert(QFileInfo(infoFileName(key)).absoluteFilePath());
    }
    cleanupDirectory(StorageUtils::mediaCacheFolder(), keep);
}

} // namespace MediaCacheFiles

} // namespace MediaV2
