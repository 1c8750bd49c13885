#pragma once

#include <QElapsedTimer>
#include <QObject>
#include <QStringList>
#include <QVariantMap>

// One request and its answer: the method, the arguments by name, the result map ("_rval_"
// holds a yes/no answer), an optional response body with its content type, and the flags the
// service sets while handling it.
//
// Kinds: Local (0) is a call from inside the process: the answer is a completion signal of the
// interface and nothing goes on the bus. Server (1) is a request that arrived from another
// process: resultReady() hands the answer to the transport. Client (2) is a request this
// process sends to another one.
//
// Thread: main thread. Ownership: the framework owns Server contexts (deleted after the answer
// is sent, or once the caller's time-out has passed without one); Local and Client contexts
// belong to whoever created them. Keep a QPointer when answering later: an unanswered
// context may be gone by then.
class ServiceCallContext : public QObject
{
    Q_OBJECT
public:
    enum Kind { Local = 0, Server = 1, Client = 2 };
    // Errors a call can end with; NotImplemented (5) is what a server answers for a request
    // its implementation does not override.
    enum SvcError { NoError = 0, UnknownMethod = 1, InvalidArguments = 2, TransportError = 3, Timeout = 4,
                    NotImplemented = 5, RemoteError = 6 };

    explicit ServiceCallContext(Kind kind, const QString& method = QString(), QObject* parent = nullptr);

    Kind kind() const { return mKind; }
    QString method() const { return mMethod; }

    const QVariantMap& arguments() const { return mArguments; }
    void setArgument(const QString& name, const QVariant& value) { mArguments.insert(name, value); }
    void setArguments(const QVariantMap& arguments) { mArguments = arguments; }
    void setIgnoredArgs(const QStringList& names) { mIgnoredArgs = names; }
    QStringList ignoredArgs() const { return mIgnoredArgs; }

    // Set by a service that will answer later; the skeleton then does not answer at once.
    void setDeferredResponse(bool deferred) { mDeferred = deferred; }
    bool deferredResponse() const { return mDeferred; }

    QVariantMap& results() { return mResults; }
    const QVariantMap& results() const { return mResults; }
    void setResponseBody(const QByteArray& body, const QString& contentType);
    QByteArray responseBody() const { return mBody; }
    QString contentType() const { return mContentType; }

    void setError(SvcError error, const QString& message);
    SvcError error() const { return mError; }
    QString errorMessage() const { return mErrorMessage; }

    // Marks the answer complete; the first call emits answered(), later ones are ignored.
    void resultReady();
    bool isAnswered() const { return mAnswered; }
    qint64 ageMs() const { return mAge.elapsed(); }

    // Client side: prepares the context for a call of `method` on `interfaceName`. The flags say
    // whether the call is asynchronous and whether no answer is expected; timeoutMs 0 means the
    // interface's own time-out for the method.
    void initCall(const QString& interfaceName, const QString& method, bool async, bool noReply, int timeoutMs);
    QString interfaceName() const { return mInterfaceName; }
    bool isAsync() const { return mAsync; }
    bool noReply() const { return mNoReply; }
    int timeoutMs() const { return mTimeoutMs; }
    // A client context is in use from initCall() until its answer has been read.
    bool inUse() const { return mInUse; }
    void setInUse(bool inUse) { mInUse = inUse; }
    void* userData() const { return mUserData; }
    void setUserData(void* data) { mUserData = data; }

signals:
    void answered(ServiceCallContext* context);

private:
    const Kind mKind;
    QString mMethod;
    QString mInterfaceName;
    QVariantMap mArguments;
    QStringList mIgnoredArgs;
    QVariantMap mResults;
    QByteArray mBody;
    QString mContentType;
    SvcError mError = NoError;
    QString mErrorMessage;
    bool mDeferred = false;
    bool mAnswered = false;
    bool mAsync = false;
    bool mNoReply = false;
    bool mInUse = false;
    int mTimeoutMs = 0;
    void* mUserData = nullptr;
    QElapsedTimer mAge;
};
