#include "platform/net/URLResolver.h"

#include "platform/log/LogLine.h"
#include "platform/net/NetDownloader.h"

#include <curl/curl.h>

URLResolver::URLResolver(const QString& url, QObject* parent)
    : QObject(parent)
    , mRequested(url)
{
}

void URLResolver::init()
{
    curl_global_init(CURL_GLOBAL_DEFAULT);
}

void URLResolver::resolve()
{
    mKind = PlaylistParser::kindOf(QUrl(mRequested));
    if (mKind == PlaylistParser::NotAPlaylist) {
        QMetaObject::invokeMethod(this, [this] { answer(mRequested); }, Qt::QueuedConnection);
        return;
    }
    mDownloader = new NetDownloader(0, mRequested, true, this);
    connect(mDownloader, &NetDownloader::dataAvailable, this, &URLResolver::collect);
    connect(mDownloader, &NetDownloader::downloadComplete, this, &URLResolver::fetched);
    mDownloader->startDownload();
}

void URLResolver::collect(const QByteArray& data)
{
    mPlaylist += data;
    if (mPlaylist.size() > kMaxPlaylistBytes) {
        LOG_WARN << "playlist " << mRequested << " is larger than " << kMaxPlaylistBytes << " bytes; playing the URL itself";
        mDownloader->abort();
        answer(mRequested);
    }
}

void URLResolver::fetched()
{
    if (mAnswered)
        return;
    if (mDownloader->statusCode() != 200 || !mDownloader->errorString().isEmpty()) {
        LOG_WARN << "cannot fetch playlist " << mRequested << " (" << mDownloader->errorString() << ", status "
                 << mDownloader->statusCode() << "); playing the URL itself";
        answer(mRequested);
        return;
    }
    answer(streamOrRequested());
}

// The fetched playlist's first stream, or the requested URL (and why, logged).
QString URLResolver::streamOrRequested() const
{
    if (mPlaylist.contains("#EXT-X-")) {
        LOG_INFO << "playlist " << mRequested << " is HLS; the player fetches it itself";
        return mRequested;
    }
    const QString entry = PlaylistParser::firstEntry(mPlaylist, mKind);
    if (entry.isEmpty()) {
        LOG_WARN << "playlist " << mRequested << " lists no stream; playing the URL itself";
        return mRequested;
    }
    const QUrl stream = QUrl(mDownloader->url()).resolved(QUrl(entry));
    if (stream.scheme() != QLatin1String("http") && stream.scheme() != QLatin1String("https")) {
        LOG_WARN << "playlist " << mRequested << " lists " << entry << ", which is not http or https; playing the URL itself";
        return mRequested;
    }
    return stream.toString();
}

void URLResolver::answer(const QString& resolved)
{
    if (mAnswered)
        return;
    mAnswered = true;
    emit urlResolved(mRequested, resolved);
}
