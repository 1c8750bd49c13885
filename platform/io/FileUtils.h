#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

// File-system helpers of the download buffers and the stream cache.
//
// Thread: any (plain file-system calls; callers keep them off the main thread where a slow
// disk would matter). Failure: false or -1, with the reason in *error where asked.
namespace FileUtils {

// The size of a file, -1 when it does not exist.
qint64 fileSize(const QString& path);
// Free space in MiB on the file system holding `path`, -1 when it cannot be read.
qint64 freeDiskSpaceMb(const QString& path);
// The plain files directly in `folder` (no sub-folders), as absolute paths, unsorted.
QStringList plainFiles(const QString& folder);
// Removes every plain file of `folder` whose absolute path is not in `keep` (nor a kept
// file's "<path>.XXXXXX" replacement in progress); returns the removed paths.
QStringList removeFilesExcept(const QString& folder, const QSet<QString>& keep);
// Removes a folder and everything in it; true when it is gone (or was never there).
bool removeFolder(const QString& folder);
// Makes `to` a second name of the file `from` (a hard link: no bytes copied). Fails when `to`
// exists or the file system cannot link (another file system, no link support).
bool hardLink(const QString& from, const QString& to, QString* error);
// Makes `to` a hard link of `from` where the file system allows, else a copy.
bool linkOrCopy(const QString& from, const QString& to, QString* error);

} // namespace FileUtils
