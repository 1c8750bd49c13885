#pragma once

#include <QByteArray>
#include <QString>
#include <QUrl>

// Reads a station playlist as URLResolver fetches it: which kind a URL names, and the first
// stream the playlist's text lists. Kept apart from the download so that the reading of hostile
// text can be exercised on its own.
//
// Thread: any (pure functions). Failure: never fails; a text that lists nothing gives "".
class PlaylistParser
{
public:
    enum Kind { NotAPlaylist, Pls, M3u };

    // By the path's extension, case-insensitive: .pls, .m3u or .m3u8 (extended M3U).
    static Kind kindOf(const QUrl& url);

    // The first entry of `playlist` (UTF-8), trimmed and not yet resolved against any URL.
    // PLS: the value of the FileN entry with the lowest N. M3U: the first line that is not a
    // comment. Any other kind is read as PLS. "" when there is none.
    static QString firstEntry(const QByteArray& playlist, Kind kind);
};
