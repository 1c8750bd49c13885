#include "platform/io/FileUtils.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>

#include <cerrno>
#include <cstring>
#include <sys/statvfs.h>
#include <unistd.h>

namespace FileUtils {

qint64 fileSize(const QString& path)
{
    const QFileInfo info(path);
    return info.exists() ? info.size() : -1;
}

qint64 freeDiskSpaceMb(const QString& path)
{
    struct statvfs fs;
    if (::statvfs(path.toLocal8Bit().constData(), &fs) != 0)
        return -1;
    return qint64(fs.f_bavail) * qint64(fs.f_frsize) / (1024 * 1024);
}

QStringList plainFiles(const QString& folder)
{
    QStringList files;
    const QFileInfoList entries = QDir(folder).entryInfoList(QDir::Files | QDir::Hidden | QDir::System, QDir::Unsorted);
    for (const QFileInfo& entry : entries)
        files.append(entry.absoluteFilePath());
    return files;
}

// A kept file's temporary sibling ("<name>.XXXXXX", its replacement being written by a
// ThreadedFileWriter) is kept too, or the replacement in flight would fail.
static bool isKept(const QString& file, const QSet<QString>& keep)
{
    if (keep.contains(file))
        return true;
    const int dot = file.lastIndexOf(QLatin1Char('.'));
    return dot > 0 && keep.contains(file.left(dot));
}

QStringList removeFilesExcept(const QString& folder, const QSet<QString>& keep)
{
    QStringList removed;
    for (const QString& file : plainFiles(folder))
        if (!isKept(file, keep) && QFile::remove(file))
            removed.append(file);
    return removed;
}

bool removeFolder(const QString& folder)
{
    QDir dir(folder);
    return !dir.exists() || dir.removeRecursively();
}

bool hardLink(const QString& from, const QString& to, QString* error)
{
    if (::link(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
        return true;
    if (error)
        *error = QStringLiteral("cannot link %1 to %2: %3").arg(from, to, QString::fromLocal8Bit(std::strerror(errno)));
    return false;
}

bool linkOrCopy(const QString& from, const QString& to, QString* error)
{
    QFile::remove(to);
    if (::link(from.toLocal8Bit().constData(), to.toLocal8Bit().constData()) == 0)
        return true;
    QFile source(from);
    if (source.copy(to))
        return true;
    if (error)
        *error = QStringLiteral("cannot copy %1 to %2: %3").arg(from, to, source.errorString());
    return false;
}

} // namespace FileUtils
