#include "platform/net/URLResolver.h"

#include "platform/log/LogLine.h"
#include "platform/net/NetDownloader.h"

#include <QRegularExpression>

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

URLResolver::Kind URLResolver::kindOf(const QUrl& url)
{
    const QString path = url.path().toLower();
    if (path.endsWith(QLatin1String(".pls")))
        return Pls;
    if (path.endsWith(QLatin1String(".m3u")) || path.endsWith(QLatin1String(".m3u8")))
        return M3u;
    return NotAPlaylist;
}

void URLResolver::resolve()
{
    mKind = kindOf(QUrl(mRequested));
    if (mKind == NotAPlaylist) {
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
    const QString entry = firstEntry();
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

// PLS: the FileN entry with the lowest N. M3U: the first line that is not a comment.
QString URLResolver::firstEntry() const
{
    const QStringList lines = QString::fromUtf8(mPlaylist).split(QRegularExpression(QStringLiteral("[\r\n]+")), Qt::SkipEmptyParts);
    static const QRegularExpression plsEntry(QStringLiteral("^\\s*File(\\d+)\\s*=\\s*(.+)$"), QRegularExpression::CaseInsensitiveOption);
    int lowest = -1;
    QString entry;
    for (const QString& raw : lines) {
        const QString line = raw.trimmed();
        if (mKind == M3u) {
            if (!line.startsWith(QLatin1Char('#')))
                return line;
            continue;
        }
        const QRegularExpressionMatch match = plsEntry.match(line);
        if (match.hasMatch() && (lowest < 0 || match.captured(1).toInt() < lowest)) {
            lowest = match.captured(1).toInt();
            entry = match.captured(2).trimmed();
        }
    }
    return entry;
}

void URLResolver::answer(const QString& resolved)
{
    if (mAnswered)
        return;
    mAnswered = true;
    emit urlResolved(mRequested, resolved);
}
