#include "platform/net/NetDownloader.h"

#include "platform/config/ConfigBoolValue.h"
#include "platform/config/ConfigStringValue.h"
#include "platform/datavalue/ConnectionUsageDataValue.h"
#include "platform/log/LogLine.h"

#include <QFile>
#include <QPointer>
#include <QUrl>

#include <utility>

namespace {

// Some radio stations still serve broken certificates or only old TLS; true lets the items
// that ask for it play anyway. Deployments that want strict TLS set it false.
ConfigBoolValue sAllowInsecureTls("net/allow_insecure_tls", true,
    "let items that ask for it play from servers with broken certificates or old TLS");
// A PEM file of the certificate authorities to trust in place of the system's, for a fleet
// whose servers carry certificates of its own authority; empty: the system's authorities.
ConfigStringValue sCaFile("net/ca_file", QString(),
    "PEM file of the certificate authorities to trust instead of the system's; empty: the system's");

NetStats::ConnectionUsageDataValue* sNetStats = nullptr;   // main thread only

// A redirect loop ends here instead of forever.
constexpr long kMaxRedirects = 10;
constexpr long kConnectTimeoutSeconds = 15;
// Media comes over the web only: a playlist entry or a redirect must not make the server read
// local files (file://) or talk to other kinds of services.
constexpr const char* kAllowedProtocols = "http,https";

} // namespace

NetDownloader::NetDownloader(NetStats::Category category, const QString& url, bool bufferedDownload, QObject* parent)
    : QObject(parent)
    , mEasy((CurlMulti::instance(), curl_easy_init()))
    , mCategory(category)
    , mUrl(url)
    , mBufferedDownload(bufferedDownload)
{
}

NetDownloader::~NetDownloader()
{
    CurlMulti::instance()->remove(mEasy);
    curl_easy_cleanup(mEasy);
    curl_slist_free_all(mHeaderList);
    curl_slist_free_all(mStatusAliases);
}

void NetDownloader::setNetStats(NetStats::ConnectionUsageDataValue* stats)
{
    sNetStats = stats;
}

void NetDownloader::addHeader(const QString& name, const QString& value)
{
    mRequestHeaders.append(qMakePair(name.toUtf8(), value.toUtf8()));
}

void NetDownloader::setRetryWithTLSV1OnSSLError(bool retry)
{
    mRetryWithOldTls = retry;
}

void NetDownloader::setSSLPeerVerificationMode(QSslSocket::PeerVerifyMode mode)
{
    mVerifyPeer = mode != QSslSocket::VerifyNone && mode != QSslSocket::QueryPeer;
}

void NetDownloader::setFromEncodedUrl(bool encoded)
{
    mEncodedUrl = encoded;
}

void NetDownloader::setStallTimeout(int seconds)
{
    mStallTimeout = seconds;
}

bool NetDownloader::configure(const QByteArray& postData, bool headOnly)
{
    const QByteArray url = mEncodedUrl ? mUrl.toUtf8() : QUrl(mUrl).toEncoded();
    curl_easy_reset(mEasy);
    curl_easy_setopt(mEasy, CURLOPT_URL, url.constData());
    curl_easy_setopt(mEasy, CURLOPT_PROTOCOLS_STR, kAllowedProtocols);
    curl_easy_setopt(mEasy, CURLOPT_REDIR_PROTOCOLS_STR, kAllowedProtocols);
    curl_easy_setopt(mEasy, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(mEasy, CURLOPT_MAXREDIRS, kMaxRedirects);
    curl_easy_setopt(mEasy, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(mEasy, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(mEasy, CURLOPT_CONNECTTIMEOUT, kConnectTimeoutSeconds);
    curl_easy_setopt(mEasy, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(mEasy, CURLOPT_LOW_SPEED_TIME, long(mStallTimeout));
    curl_easy_setopt(mEasy, CURLOPT_BUFFERSIZE, mBufferedDownload ? 256L * 1024 : 16L * 1024);
    curl_easy_setopt(mEasy, CURLOPT_HEADERFUNCTION, &NetDownloader::onHeader);
    curl_easy_setopt(mEasy, CURLOPT_HEADERDATA, this);
    curl_easy_setopt(mEasy, CURLOPT_WRITEFUNCTION, &NetDownloader::onBody);
    curl_easy_setopt(mEasy, CURLOPT_WRITEDATA, this);
    // Exactly this line: a shorter alias such as "ICY" would also turn "ICY 404" into a 200.
    curl_slist_free_all(mStatusAliases);
    mStatusAliases = curl_slist_append(nullptr, "ICY 200 OK");
    curl_easy_setopt(mEasy, CURLOPT_HTTP200ALIASES, mStatusAliases);
    curl_slist_free_all(mHeaderList);
    mHeaderList = nullptr;
    for (const auto& header : mRequestHeaders)
        mHeaderList = curl_slist_append(mHeaderList, (header.first + ": " + header.second).constData());
    curl_easy_setopt(mEasy, CURLOPT_HTTPHEADER, mHeaderList);
    mPostData = postData;
    if (!mPostData.isEmpty()) {
        curl_easy_setopt(mEasy, CURLOPT_POSTFIELDS, mPostData.constData());
        curl_easy_setopt(mEasy, CURLOPT_POSTFIELDSIZE, long(mPostData.size()));
    }
    curl_easy_setopt(mEasy, CURLOPT_NOBODY, headOnly ? 1L : 0L);
    if (!mVerifyPeer) {
        if (sAllowInsecureTls.value()) {
            curl_easy_setopt(mEasy, CURLOPT_SSL_VERIFYPEER, 0L);
            curl_easy_setopt(mEasy, CURLOPT_SSL_VERIFYHOST, 0L);
        } else {
            LOG_WARN << "not skipping certificate verification for " << mUrl << ": net/allow_insecure_tls is false";
        }
    }
    const QByteArray caFile = QFile::encodeName(sCaFile.value());
    if (!caFile.isEmpty()) {
        curl_easy_setopt(mEasy, CURLOPT_CAINFO, caFile.constData());   // curl copies it
        curl_easy_setopt(mEasy, CURLOPT_CAPATH, nullptr);
    }
    if (mTriedOldTls)
        curl_easy_setopt(mEasy, CURLOPT_SSLVERSION, long(CURL_SSLVERSION_TLSv1_0 | CURL_SSLVERSION_MAX_TLSv1_0));
    return true;
}

bool NetDownloader::startDownload(const QByteArray& postData, bool headOnly)
{
    if (mRunning)
        return false;
    configure(postData, headOnly);
    mResponseHeaders.clear();
    mStatusCode = 0;
    mError.clear();
    mPending.clear();
    mPausedForDelivery = false;
    mRunning = true;
    mTransferring = true;
    CurlMulti::instance()->add(mEasy, this);
    return true;
}

void NetDownloader::abort()
{
    if (!mRunning || mAborted)
        return;
    CurlMulti::instance()->remove(mEasy);
    mTransferring = false;
    mAborted = true;
    mPausedByConsumer = false;
    mPending.clear();
    mError = QStringLiteral("aborted");
    QMetaObject::invokeMethod(this, [this] { finish(Aborted); }, Qt::QueuedConnection);
}

void NetDownloader::pause()
{
    if (!mRunning || mAborted || mPausedByConsumer)
        return;
    mPausedByConsumer = true;
    if (mTransferring)
        curl_easy_pause(mEasy, CURLPAUSE_RECV);
}

// Our own pause, if on, stays until the held bytes are delivered: it lifts in deliverPending().
void NetDownloader::resume()
{
    if (!mPausedByConsumer)
        return;
    mPausedByConsumer = false;
    if (mTransferring && !mPausedForDelivery)
        continueTransfer();
    scheduleDelivery();
}

// May call bodyChunk() at once with bytes curl held while paused.
void NetDownloader::continueTransfer()
{
    curl_easy_pause(mEasy, CURLPAUSE_CONT);
    CurlMulti::instance()->kick();
}

bool NetDownloader::hasResponseHeader(const QByteArray& name) const
{
    for (const auto& header : mResponseHeaders)
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return true;
    return false;
}

QByteArray NetDownloader::responseHeader(const QByteArray& name) const
{
    for (const auto& header : mResponseHeaders)
        if (header.first.compare(name, Qt::CaseInsensitive) == 0)
            return header.second;
    return QByteArray();
}

size_t NetDownloader::onHeader(char* data, size_t size, size_t count, void* self)
{
    static_cast<NetDownloader*>(self)->headerLine(QByteArray(data, int(size * count)));
    return size * count;
}

// Called by curl: only records, never calls back into curl or out to receivers.
void NetDownloader::headerLine(const QByteArray& raw)
{
    const QByteArray line = raw.trimmed();
    if (line.isEmpty()) {
        headersComplete();
        return;
    }
    if (line.startsWith("HTTP/") || line.startsWith("ICY ")) {
        mResponseHeaders.clear();
        mStatusCode = line.split(' ').value(1).toInt();
        return;
    }
    const int colon = line.indexOf(':');
    if (colon > 0)
        mResponseHeaders.append(qMakePair(line.left(colon).trimmed(), line.mid(colon + 1).trimmed()));
}

void NetDownloader::headersComplete()
{
    const bool redirect = mStatusCode >= 300 && mStatusCode < 400 && hasResponseHeader("Location");
    if (redirect) {
        const QString target = QUrl(mUrl).resolved(QUrl(QString::fromUtf8(responseHeader("Location")))).toString();
        mUrl = target;
        QMetaObject::invokeMethod(this, [this, target] { emit redirected(target); }, Qt::QueuedConnection);
        return;
    }
    QMetaObject::invokeMethod(this, [this] { emit metaDataChanged(); }, Qt::QueuedConnection);
}

size_t NetDownloader::onBody(char* data, size_t size, size_t count, void* self)
{
    return static_cast<NetDownloader*>(self)->bodyChunk(data, size * count);
}

// Called by curl: the chunk waits for the next loop turn; past the limit curl keeps it and
// pauses until the waiting bytes are delivered. A consumer's pause normally stops curl before
// it gets here; a transfer restarted meanwhile (the TLS retry) is paused at its first chunk.
size_t NetDownloader::bodyChunk(const char* data, size_t size)
{
    if (mPausedByConsumer)
        return CURL_WRITEFUNC_PAUSE;
    if (mPending.size() + qint64(size) > kMaxPendingBytes && !mPending.isEmpty()) {
        mPausedForDelivery = true;
        return CURL_WRITEFUNC_PAUSE;
    }
    mPending.append(data, int(size));
    scheduleDelivery();
    return size;
}

void NetDownloader::scheduleDelivery()
{
    if (mDeliveryQueued)
        return;
    mDeliveryQueued = true;
    QMetaObject::invokeMethod(this, &NetDownloader::deliverPending, Qt::QueuedConnection);
}

// The receiver may delete this downloader (or restart it) from its slot, so nothing of this
// object is touched after an emit unless it still exists.
void NetDownloader::deliverPending()
{
    mDeliveryQueued = false;
    if (mPausedByConsumer || mAborted)
        return;
    if (!mPending.isEmpty()) {
        const QByteArray chunk = std::exchange(mPending, QByteArray());
        if (sNetStats)
            sNetStats->addTraffic(mCategory, quint64(chunk.size()), 0);
        if (mPausedForDelivery && mTransferring) {
            mPausedForDelivery = false;
            continueTransfer();
        }
        const QPointer<NetDownloader> alive(this);
        emit dataAvailable(chunk);
        if (!alive)
            return;
    }
    maybeEnd();
}

// A finished transfer is reported once every byte before it has been delivered.
void NetDownloader::maybeEnd()
{
    if (mRunning && !mTransferring && !mAborted && !mPausedByConsumer && mPending.isEmpty())
        finish(mEndStatus);
}

NetDownloader::Status NetDownloader::statusFor(CURLcode result) const
{
    switch (result) {
    case CURLE_OK: return Success;
    case CURLE_OPERATION_TIMEDOUT: return Timeout;
    case CURLE_HTTP_RETURNED_ERROR: return HttpError;
    case CURLE_TOO_MANY_REDIRECTS: return TooManyRedirects;
    case CURLE_SSL_CONNECT_ERROR:
    case CURLE_PEER_FAILED_VERIFICATION:
    case CURLE_SSL_CERTPROBLEM:
    case CURLE_SSL_CIPHER:
    case CURLE_SSL_CACERT_BADFILE: return SslError;
    default: return NetworkError;
    }
}

// Old servers that speak only TLS 1.0 get one more try, where the item asked for it and the
// deployment allows it.
bool NetDownloader::maybeRetryWithOldTls(CURLcode result)
{
    if (statusFor(result) != SslError || !mRetryWithOldTls || mTriedOldTls)
        return false;
    if (!sAllowInsecureTls.value()) {
        LOG_WARN << "not retrying " << mUrl << " with TLS 1.0: net/allow_insecure_tls is false";
        return false;
    }
    mTriedOldTls = true;
    mRunning = false;
    return startDownload(mPostData);
}

void NetDownloader::transferFinished(CURLcode result)
{
    curl_off_t sent = 0;
    if (sNetStats && curl_easy_getinfo(mEasy, CURLINFO_REQUEST_SIZE, &sent) == CURLE_OK && sent > 0)
        sNetStats->addTraffic(mCategory, 0, quint64(sent));
    long code = 0;
    if (curl_easy_getinfo(mEasy, CURLINFO_RESPONSE_CODE, &code) == CURLE_OK && code > 0)
        mStatusCode = int(code);
    if (result != CURLE_OK)
        mError = QString::fromUtf8(curl_easy_strerror(result));
    if (maybeRetryWithOldTls(result))
        return;
    mTransferring = false;
    mEndStatus = statusFor(result);
    deliverPending();
}

void NetDownloader::finish(Status status)
{
    if (!mRunning)
        return;
    mRunning = false;
    mAborted = false;
    mPausedByConsumer = false;
    // The TLS 1.0 fallback was for this download only: the next one tries current TLS first, and
    // asks net/allow_insecure_tls again before falling back.
    mTriedOldTls = false;
    emit downloadComplete(this, status);
}
