#include "mpris/MprisRequestQueue.h"

#include "media_server/gen/MediaServer2.h"
#include "platform/log/LogLine.h"
#include "platform/service/DBusNames.h"
#include "platform/service/ServiceCallContext.h"

MprisRequestQueue::MprisRequestQueue(const QDBusConnection& connection, QObject* parent)
    : QObject(parent)
    , mConnection(connection)
{
    mTimeout.setSingleShot(true);
    connect(&mTimeout, &QTimer::timeout, this, &MprisRequestQueue::timedOut);
}

MprisRequestQueue::~MprisRequestQueue() = default;

void MprisRequestQueue::send(const QList<MprisRequest>& requests, const QDBusMessage& call)
{
    mCalls.enqueue({requests, call});
    if (!mContext)
        sendNext();
}

bool MprisRequestQueue::connectService()
{
    if (!mConnected && MediaServer2::server())
        mConnected = MediaServer2::server()->connectCompletedSignals(this) > 0;
    return mConnected;
}

void MprisRequestQueue::sendNext()
{
    while (!mContext && !mCalls.isEmpty()) {
        Call& call = mCalls.head();
        if (call.requests.isEmpty()) {
            finishCall(QString(), QString());
            continue;
        }
        if (!connectService()) {
            finishCall(QLatin1String(DBusNames::failedError()), QStringLiteral("the media service is not running"));
            continue;
        }
        const MprisRequest request = call.requests.takeFirst();
        mContext = std::make_unique<ServiceCallContext>(ServiceCallContext::Local, request.method);
        mContext->setArguments(request.arguments);
        mTimeout.start(MediaServer2::server()->timeout(request.method));
        ServiceCallContext* context = mContext.get();
        MediaServer2::server()->processRequest(context);   // may answer before it returns
    }
}

void MprisRequestQueue::completed(ServiceCallContext* context, bool ok)
{
    if (!mContext || context != mContext.get())
        return;   // a client's request on the bus, or one this queue gave up on
    mTimeout.stop();
    const QString method = mContext->method();
    retireContext();
    if (!ok) {
        LOG_WARN << "the media service refused " << method;
        finishCall(QLatin1String(DBusNames::failedError()), QStringLiteral("the media service refused %1").arg(method));
    } else if (mCalls.head().requests.isEmpty()) {
        finishCall(QString(), QString());
    }
    sendNext();
}

void MprisRequestQueue::timedOut()
{
    const QString method = mContext ? mContext->method() : QString();
    LOG_WARN << "the media service gave no answer to " << method << " within " << mTimeout.interval() << " ms";
    retireContext();
    finishCall(QLatin1String(DBusNames::noAnswerError()),
               QStringLiteral("the media service gave no answer to %1 within %2 ms").arg(method).arg(mTimeout.interval()));
    sendNext();
}

// Deleted later: the answer may come from inside the service's own handling of the context.
void MprisRequestQueue::retireContext()
{
    mContext.release()->deleteLater();
}

void MprisRequestQueue::finishCall(const QString& errorName, const QString& errorText)
{
    const Call call = mCalls.dequeue();
    if (call.message.type() == QDBusMessage::MethodCallMessage)   // else the bridge's own request
        mConnection.send(errorName.isEmpty() ? call.message.createReply() : call.message.createErrorReply(errorName, errorText));
}

void MprisRequestQueue::stopCompleted(ServiceCallContext* context, bool& rval)
{
    completed(context, rval);
}

void MprisRequestQueue::pauseCompleted(ServiceCallContext* context, bool& rval)
{
    completed(context, rval);
}

void MprisRequestQueue::playCompleted(ServiceCallContext* context, bool& rval)
{
    completed(context, rval);
}

void MprisRequestQueue::loadMediaCompleted(ServiceCallContext* context, bool& rval)
{
    completed(context, rval);
}

void MprisRequestQueue::seekCompleted(ServiceCallContext* context, bool& rval)
{
    completed(context, rval);
}
