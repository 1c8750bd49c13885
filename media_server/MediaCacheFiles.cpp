#include "media_server/MediaCacheFiles.h"

#include "platform/io/FileUtils.h"
#include "platform/io/StorageUtils.h"
#include "platform/log/LogLine.h"

#include <QCryptographicHash>
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

void cleanupDirectory(const QString& dir, const QSet<QString>& keep)
{
    for (const QString& file : FileUtils::removeFilesExcept(dir, keep))
        LOG_INFO << "Deleting " << file;
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
