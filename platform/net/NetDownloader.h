#pragma once

#include "platform/datavalue/ConnectionUsage.h"
#include "platform/net/CurlMulti.h"

#include <QByteArray>
#include <QList>
#include <QObject>
#include <QPair>
#include <QSslSocket>

namespace NetStats {
class ConnectionUsageDataValue;
}

// One HTTP download on libcurl, driven by the Qt event loop (see CurlMulti). It reports the
// response headers (metaDataChanged(), again after each redirect, which is also reported with
// redirected()), the body in chunks (dataAvailable()), and the end (downloadComplete(), with
// Timeout = 5 when the server stalled). Old streaming servers' "ICY 200 OK" status lines are
// accepted as 200 with their icy-* headers readable. Bytes are counted into the process's
// connection-usage value under the download's category.
//
// Only http and https are fetched, also after redirects; any other scheme ends the download
// with NetworkError and "Unsupported protocol".
//
// Memory: at most kMaxPendingBytes wait for delivery; beyond that the transfer is paused (no
// CPU spent) until the chunk has been delivered.
//
// Back-pressure: a consumer that cannot keep up (a slow disk) calls pause(). Until resume(),
// nothing is emitted (neither data nor the end) and curl reads nothing more from the socket, so
// the server is held back by TCP; curl's own pause costs no CPU, and libcurl skips its
// low-speed check on a paused transfer, so a pause longer than the stall time-out does not end
// the download. resume() delivers what was held on a later loop turn and reads on. The
// downloader's own pause above never lifts the consumer's. pause() and resume() outside a
// running download do nothing.
//
// abort(): after it returns nothing more is delivered (bytes not yet delivered are dropped, a
// pause is forgotten), and downloadComplete(Aborted) follows once, on a later loop turn.
//
// Thread: main thread only. Owns its curl handle. Failure: never throws; the end is reported
// once with a Status, statusCode() and errorString().
class NetDownloader : public QObject, private CurlMulti::Client
{
    Q_OBJECT
public:
    enum Status { Success = 0, Aborted = 1, NetworkError = 2, HttpError = 3, SslError = 4, Timeout = 5, TooManyRedirects = 6 };
    Q_ENUM(Status)

    // bufferedDownload: true for downloads into a file (large reads), false for live streams
    // (small reads, so audio reaches the player with little delay).
    NetDownloader(NetStats::Category category, const QString& url, bool bufferedDownload, QObject* parent = nullptr);
    ~NetDownloader() override;

    static void setNetStats(NetStats::ConnectionUsageDataValue* stats);

    void addHeader(const QString& name, const QString& value);
    void setRetryWithTLSV1OnSSLError(bool retry);
    void setSSLPeerVerificationMode(QSslSocket::PeerVerifyMode mode);
    // The URL is already percent-encoded and is used as it is.
    void setFromEncodedUrl(bool encoded);
    // Seconds without a byte before the download ends with Timeout.
    void setStallTimeout(int seconds);
    // A non-empty postData makes the request a POST; headOnly a HEAD.
    bool startDownload(const QByteArray& postData = QByteArray(), bool headOnly = false);
    // Ends the download at once; downloadComplete(Aborted) follows on the next loop turn.
    void abort();
    // Holds back delivery and reading until resume(); see the back-pressure note above.
    void pause();
    void resume();
    bool isPaused() const { return mPausedByConsumer; }

    bool hasResponseHeader(const QByteArray& name) const;
    QByteArray responseHeader(const QByteArray& name) const;
    // Every header of the latest response, in the order received.
    QList<QPair<QByteArray, QByteArray>> responseHeaders() const { return mResponseHeaders; }
    int statusCode() const { return mStatusCode; }
    QString errorString() const { return mError; }
    QString url() const { return mUrl; }

signals:
    void dataAvailable(QByteArray data);
    void downloadComplete(NetDownloader* downloader, NetDownloader::Status status);
    void metaDataChanged();
    void redirected(QString newUrl);

private:
    static size_t onHeader(char* data, size_t size, size_t count, void* self);
    static size_t onBody(char* data, size_t size, size_t count, void* self);
    void headerLine(const QByteArray& line);
    void headersComplete();
    size_t bodyChunk(const char* data, size_t size);
    void scheduleDelivery();
    void deliverPending();
    void maybeEnd();
    void continueTransfer();
    void transferFinished(CURLcode result) override;
    Status statusFor(CURLcode result) const;
    bool configure(const QByteArray& postData, bool headOnly);
    bool maybeRetryWithOldTls(CURLcode result);
    void finish(Status status);

    // Enough for several seconds of any audio stream; a consumer slower than that pauses the
    // transfer instead of growing memory.
    static constexpr int kMaxPendingBytes = 1024 * 1024;

    CURL* mEasy;
    const NetStats::Category mCategory;
    QString mUrl;
    const bool mBufferedDownload;
    bool mEncodedUrl = false;
    bool mVerifyPeer = true;
    bool mRetryWithOldTls = false;
    bool mTriedOldTls = false;
    int mStallTimeout = 30;
    QList<QPair<QByteArray, QByteArray>> mRequestHeaders;
    curl_slist* mHeaderList = nullptr;
    curl_slist* mStatusAliases = nullptr;
    QByteArray mPostData;
    QList<QPair<QByteArray, QByteArray>> mResponseHeaders;   // of the latest response
    int mStatusCode = 0;
    QByteArray mPending;        // body bytes waiting for delivery
    bool mDeliveryQueued = false;
    bool mPausedForDelivery = false;   // curl paused because mPending is full
    bool mPausedByConsumer = false;    // pause() without resume() yet
    bool mRunning = false;             // from startDownload() until downloadComplete()
    bool mTransferring = false;        // registered with CurlMulti: curl works on it
    bool mAborted = false;             // abort() called; downloadComplete(Aborted) is queued
    Status mEndStatus = Success;       // of a finished transfer, reported after the held bytes
    QString mError;
};
