#pragma once

#include "media_server/gen/MediaServer2.h"

#include <QPointer>

namespace MediaV2 {

struct DeferredRequest;

// The MediaServer2 service: forwards every request by queued invocation, by method name, to the
// server player, and answers the requests that wait for the player (stop, pause, play,
// loadMedia, seek) when the player emits the matching completion signal.
//
// One pending context only, not a queue: a deferred request that arrives before the previous
// one is answered takes over the slot and the connection, so the earlier caller times out.
// Clients wait for each answer before the next request.
//
// Thread: main thread (created by the service framework). Owns nothing; the player is the
// process's singleton, the contexts belong to the framework (hence the guarded pointer).
// Failure: every inconsistency is reported through Logger::logAssert with this file's name.
class MediaServerImpl2 : public MediaServer2ImplBase
{
    Q_OBJECT
public:
    Q_INVOKABLE MediaServerImpl2();

    // The object requests are forwarded to; the constructor takes the server player. Tests
    // give a stand-in with the player's signal and slot names.
    void setPlayer(QObject* player) { mPlayer = player; }

    bool stop(ServiceCallContext* context) override;
    bool pause(ServiceCallContext* context) override;
    bool play(const int& milliSecondsStartPos, ServiceCallContext* context) override;
    bool loadMedia(const QString& playbackMetadata, const QString& onDeckMetadata, ServiceCallContext* context) override;
    bool seek(const int& milliSecondsPos, ServiceCallContext* context) override;
    bool playMediaFile(const QString& fileName, ServiceCallContext* context) override;
    bool stopMediaFile(ServiceCallContext* context) override;
    void killBufferDownload(ServiceCallContext* context) override;
    void timeoutBufferDownload(ServiceCallContext* context) override;

public slots:
    void loadMediaComplete(bool ok);
    void stopComplete(bool ok);
    void pauseComplete(bool ok);
    void playComplete(bool ok);
    void seekComplete(bool ok);

private:
    template <class Invoke>
    bool deferToPlayer(const DeferredRequest& request, ServiceCallContext* context, Invoke invoke);
    bool finishDeferred(const DeferredRequest& request);
    bool hasPlayer() const;

    QObject* mPlayer;
    QPointer<ServiceCallContext> mPendingContext;
};

} // namespace MediaV2
