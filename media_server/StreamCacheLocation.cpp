#include "media_server/StreamCacheLocation.h"

#include "platform/config/ConfigStore.h"
#include "platform/config/ConfigStringValue.h"
#include "platform/io/StorageUtils.h"

#include <QFileInfo>

namespace {

// The database and the folder of stream files deliberately share one key: pointing the key at
// another place moves both together: the database is the file named, and the stream files
// live in its folder's "streams/". Unset, both follow "storage/stream_cache_folder"; the
// defaults shown here are spelled from the cache root because asking StorageUtils for the
// folder would create it while merely listing the settings.
ConfigStringValue sDbFile("mediaserver/stream_cache_db_file", StorageUtils::cacheRoot() + QStringLiteral("/stream_cache/stream_cache.db"),
    "the stream cache's database file; its folder's streams/ holds the cached files");
ConfigStringValue sStreamFolder("mediaserver/stream_cache_db_file", StorageUtils::cacheRoot() + QStringLiteral("/stream_cache/streams/"),
    "the stream cache's database file (this line: the streams/ folder beside it)");

// The key as set, empty when it is not: the two objects' defaults differ, their settings never.
QString setPath()
{
    QString path;
    return ConfigStore::instance()->lookup(sDbFile.key(), &path) ? path : QString();
}

} // namespace

namespace MediaV2::StreamCacheLocation {

QString databaseFile()
{
    const QString set = setPath();
    return set.isEmpty() ? StorageUtils::streamCacheFolder() + QStringLiteral("/stream_cache.db") : sDbFile.value();
}

QString streamFolder()
{
    const QString set = setPath();
    if (!set.isEmpty())
        return QFileInfo(sStreamFolder.value()).absolutePath() + QStringLiteral("/streams/");
    return StorageUtils::streamCacheFolder() + QStringLiteral("/streams/");
}

} // namespace MediaV2::StreamCacheLocation
