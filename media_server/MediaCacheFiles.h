#pragma once

#include <QSet>
#include <QString>
#include <QStringList>

namespace MediaV2 {

// The download buffers' files in the media cache folder (StorageUtils::mediaCacheFolder()).
// Names come from the MD5 of the cache key's UTF-8 bytes as 32 lowercase hexadecimal
// characters, so any key (slashes, dots, kilobytes of text, any script) gives a short, safe
// file name.
//
// Thread: any (names and plain file removals).
namespace MediaCacheFiles {

QString hashForKey(const QString& key);
// "<folder>/<hash>_cache": the downloaded bytes at their offsets in the resource.
QString cacheFileName(const QString& key);
// "<folder>/<hash>_info.txt": the StreamingMediaBufferInfo of the data file.
QString infoFileName(const QString& key);

// FileUtils::removeFilesExcept, logging each file removed.
void cleanupDirectory(const QString& dir, const QSet<QString>& keep);
// Leaves only the files of these keys in the media cache folder (empty keys are skipped), and
// empties and removes the alternate folder an earlier layout used. Long-term keeping is the
// stream cache's business; this folder holds what is being downloaded now.
void keepOnlyFilesOf(const QStringList& keys);

} // namespace MediaCacheFiles

} // namespace MediaV2
