#include "media_server/StreamCacheFolder.h"

#include "platform/io/FileUtils.h"
#include "platform/io/StorageUtils.h"

#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>

#include <dirent.h>

namespace MediaV2 {

StreamCacheFolder::StreamCacheFolder(const QString& path)
    : mPath(QDir::cleanPath(path))
{
}

bool StreamCacheFolder::create(QString* error) const
{
    if (StorageUtils::ensureFolder(mPath))
        return true;
    *error = QStringLiteral("cannot create the folder %1").arg(mPath);
    return false;
}

QString StreamCacheFolder::filePath(const QString& name) const
{
    return mPath + QLatin1Char('/') + name;
}

// The time keeps names of different runs apart, the serial those of one run.
QString StreamCacheFolder::newName(const QString& key)
{
    const QByteArray hash = QCryptographicHash::hash(key.toUtf8(), QCryptographicHash::Sha1).toHex();
    return QStringLiteral("%1-%2-%3")
        .arg(QString::fromLatin1(hash))
        .arg(QDateTime::currentMSecsSinceEpoch(), 0, 36)
        .arg(++mSerial, 0, 36);
}

QString StreamCacheFolder::partialName(const QString& name)
{
    return name + QStringLiteral(".part");
}

// readdir's own file type, not a stat per file: at start-up the folder may hold many thousands.
QStringList StreamCacheFolder::names() const
{
    QStringList names;
    DIR* dir = ::opendir(QFile::encodeName(mPath).constData());
    if (!dir)
        return names;
    while (const struct dirent* entry = ::readdir(dir))
        if (entry->d_type != DT_DIR)   // ".", ".." and sub-folders; DT_UNKNOWN counts as a file
            names.append(QFile::decodeName(entry->d_name));
    ::closedir(dir);
    return names;
}

qint64 StreamCacheFolder::sizeOf(const QString& name) const
{
    return FileUtils::fileSize(filePath(name));
}

bool StreamCacheFolder::remove(const QString& name) const
{
    return QFile::remove(filePath(name));
}

qint64 StreamCacheFolder::freeBytes() const
{
    const qint64 mb = FileUtils::freeDiskSpaceMb(mPath);
    return mb < 0 ? -1 : mb * 1024 * 1024;
}

} // namespace MediaV2
