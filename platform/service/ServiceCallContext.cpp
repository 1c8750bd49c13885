#include "platform/service/ServiceCallContext.h"

ServiceCallContext::ServiceCallContext(Kind kind, const QString& method, QObject* parent)
    : QObject(parent)
    , mKind(kind)
    , mMethod(method)
{
    mAge.start();
}

void ServiceCallContext::setResponseBody(const QByteArray& body, const QString& contentType)
{
    mBody = body;
    mContentType = contentType;
}

void ServiceCallContext::setError(SvcError error, const QString& message)
{
    mError = error;
    mErrorMessage = message;
}

void ServiceCallContext::resultReady()
{
    if (mAnswered)
        return;
    mAnswered = true;
    emit answered(this);
}

void ServiceCallContext::initCall(const QString& interfaceName, const QString& method, bool async, bool noReply, int timeoutMs)
{
    mInterfaceName = interfaceName;
    mMethod = method;
    mAsync = async;
    mNoReply = noReply;
    mTimeoutMs = timeoutMs;
    mArguments.clear();
    mResults.clear();
    mError = NoError;
    mErrorMessage.clear();
    mAnswered = false;
    mInUse = true;
    mAge.restart();
}
