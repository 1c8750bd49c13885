#pragma once

#include <QString>

namespace MediaV2 {

// Where the stream cache keeps its database and its files. One key,
// "mediaserver/stream_cache_db_file", names the database file, and the stream files live in
// that file's folder plus "streams/": moving the database moves the files with it. Unset, both
// live in "storage/stream_cache_folder" ("stream_cache.db" and "streams/").
//
// Thread: any (reads settings). With the key unset, asking creates the storage folder.
namespace StreamCacheLocation {

QString databaseFile();
QString streamFolder();

} // namespace StreamCacheLocation

} // namespace MediaV2
