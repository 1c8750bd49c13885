#include "platform/io/StorageUtils.h"

#include "platform/config/ConfigStringValue.h"
#include "platform/log/LogLine.h"

#include <QDir>

namespace {

// The defaults follow the cache root of the environment the process starts in, so a systemd
// unit with CacheDirectory= needs no configuration at all.
ConfigStringValue sMediaCacheFolder("storage/media_cache_folder", StorageUtils::cacheRoot() + QStringLiteral("/media_cache"),
    "folder of the download buffers");
ConfigStringValue sAlternateMediaCacheFolder("storage/alternate_media_cache_folder", StorageUtils::cacheRoot() + QStringLiteral("/media_cache_alt"),
    "folder of the download buffers when the first cannot be used");
ConfigStringValue sStreamCacheFolder("storage/stream_cache_folder", StorageUtils::cacheRoot() + QStringLiteral("/stream_cache"),
    "folder of the stream cache, unless mediaserver/stream_cache_db_file names another");

QString ensured(const QString& path)
{
    StorageUtils::ensureFolder(path);
    return path;
}

} // namespace

QString StorageUtils::cacheRoot()
{
    const QString systemd = qEnvironmentVariable("CACHE_DIRECTORY").section(QLatin1Char(':'), 0, 0);
    if (!systemd.isEmpty())
        return systemd;
    QString base = qEnvironmentVariable("XDG_CACHE_HOME");
    if (base.isEmpty())
        base = QDir::homePath() + QStringLiteral("/.cache");
    return base + QStringLiteral("/CabinMediaServer2");
}

QString StorageUtils::mediaCacheFolder()
{
    return ensured(sMediaCacheFolder.value());
}

QString StorageUtils::alternateMediaCacheFolder()
{
    return ensured(sAlternateMediaCacheFolder.value());
}

QString StorageUtils::streamCacheFolder()
{
    return ensured(sStreamCacheFolder.value());
}

bool StorageUtils::ensureFolder(const QString& path)
{
    if (QDir(path).exists() || QDir().mkpath(path))
        return true;
    LOG_ERROR << "cannot create folder " << path << ": check that its parent exists and is writable";
    return false;
}
