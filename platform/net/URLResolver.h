#pragma once

#include "platform/net/PlaylistParser.h"

#include <QObject>
#include <QString>
#include <QUrl>

class NetDownloader;

// Turns a station's playlist URL (PLS, M3U, extended M3U) into the first stream URL it lists;
// any other URL is answered unchanged, without a request. Relative entries are resolved
// against the URL the playlist was finally fetched from, after redirects. An HLS playlist
// (one with #EXT-X- tags) is answered unchanged: its entries are segments of a few seconds,
// and GStreamer plays the playlist itself. A playlist that cannot be fetched, is larger than
// 64 kB, lists nothing or lists a stream that is not http or https is answered with the
// requested URL, and the reason is logged: the player then tries the URL itself rather than
// playing nothing.
//
// resolve() always leads to exactly one urlResolved(requested, resolved), on a later turn of
// the event loop.
//
// Thread: main thread. Owns the playlist download while it runs.
class URLResolver : public QObject
{
    Q_OBJECT
public:
    explicit URLResolver(const QString& url, QObject* parent = nullptr);

    // Once at process start, before any thread exists: libcurl's global set-up is not
    // thread-safe.
    static void init();

    void resolve();

signals:
    void urlResolved(QString requested, QString resolved);

private slots:
    void collect(const QByteArray& data);
    void fetched();

private:
    QString streamOrRequested() const;
    void answer(const QString& resolved);

    // Far more than any station list; a larger answer is not a playlist.
    static constexpr int kMaxPlaylistBytes = 64 * 1024;

    const QString mRequested;
    PlaylistParser::Kind mKind = PlaylistParser::NotAPlaylist;
    QByteArray mPlaylist;
    NetDownloader* mDownloader = nullptr;
    bool mAnswered = false;
};
