#pragma once

#include <QDBusConnection>
#include <QDBusMessage>
#include <QList>
#include <QObject>
#include <QQueue>
#include <QTimer>
#include <QVariantMap>

#include <memory>

class ServiceCallContext;

// One request to the media service: its method and named arguments, as a remote client would
// send them.
struct MprisRequest
{
    QString method;
    QVariantMap arguments;
};

// Carries the media-player bridge's calls to the process's own MediaServer2 service, in local
// call contexts, so that they take exactly the path of a client's request: the service queues
// them to the player and answers on the player's completion signals. The service serves one
// waiting request at a time, so the queue sends one request, waits for its answer, then sends
// the next. A call made of several requests (open = load, then play) stops at the first one the
// service refuses.
//
// The D-Bus call that asked is answered when its last request is: an empty reply, or the error
// com.kelvramotors.Error.Failed naming the refused request, or com.kelvramotors.Error.NoAnswer
// once the service's own time-out for the method has passed without an answer (a seek outside
// playing and paused is never answered).
//
// Thread: main thread. Owns the context in flight; the waiting calls are copies of their
// messages. No locks.
class MprisRequestQueue : public QObject
{
    Q_OBJECT
public:
    explicit MprisRequestQueue(const QDBusConnection& connection, QObject* parent = nullptr);
    ~MprisRequestQueue() override;

    // Queues the requests; `call` (delayed by the caller) is answered once they are done. An
    // empty QDBusMessage stands for the bridge's own request, answered to nobody.
    void send(const QList<MprisRequest>& requests, const QDBusMessage& call);

public slots:
    // The service's completion signals, connected by signature.
    void stopCompleted(ServiceCallContext* context, bool& rval);
    void pauseCompleted(ServiceCallContext* context, bool& rval);
    void playCompleted(ServiceCallContext* context, bool& rval);
    void loadMediaCompleted(ServiceCallContext* context, bool& rval);
    void seekCompleted(ServiceCallContext* context, bool& rval);

private:
    struct Call
    {
        QList<MprisRequest> requests;
        QDBusMessage message;
    };

    bool connectService();
    void sendNext();
    void completed(ServiceCallContext* context, bool ok);
    void timedOut();
    void retireContext();
    void finishCall(const QString& errorName, const QString& errorText);

    QDBusConnection mConnection;
    QQueue<Call> mCalls;                          // the head is in flight once mContext is set
    std::unique_ptr<ServiceCallContext> mContext;   // the request the service is answering
    QTimer mTimeout;
    bool mConnected = false;
};
