#pragma once

#include <QString>

// Where the process keeps its files. The cache root is $CACHE_DIRECTORY (set by systemd; the
// first entry when it lists several), else $XDG_CACHE_HOME/CabinMediaServer2, else
// ~/.cache/CabinMediaServer2. Each folder has a configuration key so a deployment can put it
// on another file system, and is created when first asked for.
//
// Thread: any. Failure: a folder that cannot be created is logged at ERROR and its path is
// still returned; the writer that then fails to open a file reports the details.
class StorageUtils
{
public:
    static QString cacheRoot();
    // Download buffers of the current and the on-deck item ("storage/media_cache_folder").
    static QString mediaCacheFolder();
    // Buffers left by an earlier layout; emptied and removed when a download starts
    // ("storage/alternate_media_cache_folder").
    static QString alternateMediaCacheFolder();
    // The persistent cache of finished downloads ("storage/stream_cache_folder").
    static QString streamCacheFolder();

    // Creates the folder and its parents; true when it exists afterwards.
    static bool ensureFolder(const QString& path);
};
