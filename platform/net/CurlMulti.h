#pragma once

#include <QHash>
#include <QObject>

#include <curl/curl.h>

class QSocketNotifier;
class QTimer;

// The process's one libcurl multi handle, driven by the Qt event loop: curl's sockets are
// watched with QSocketNotifiers and its timer is one QTimer, so downloads never block the
// loop (name resolution runs in curl's threaded resolver). Finished transfers are collected
// after curl returns and handed to their owners on a later turn of the loop, so no owner ever
// re-enters curl from inside one of curl's callbacks. Each add() is a new registration with its
// own serial number, and a queued delivery names the serial, not the easy handle: an owner
// that deletes its handle and makes a new one before the delivery runs usually gets the same
// address back from the allocator, and must not hear the old transfer's end.
//
// Thread: main thread only (created there on first use). Owns the multi handle and the
// notifiers; not the easy handles, which belong to their NetDownloaders.
class CurlMulti : public QObject
{
    Q_OBJECT
public:
    // Told when its transfer has finished, with curl's result.
    class Client
    {
    public:
        virtual ~Client() = default;
        virtual void transferFinished(CURLcode result) = 0;
    };

    static CurlMulti* instance();
    ~CurlMulti() override;

    void add(CURL* easy, Client* client);
    // Safe at any time outside curl's callbacks; the client hears nothing more.
    void remove(CURL* easy);
    // Lets curl drive a transfer that was paused and is resumed.
    void kick();

private:
    CurlMulti();
    static int onSocket(CURL* easy, curl_socket_t socket, int what, void* self, void* socketData);
    static int onTimer(CURLM* multi, long timeoutMs, void* self);
    void watch(curl_socket_t socket, int what);
    void act(curl_socket_t socket, int events);
    void collectFinished();
    void deliver(CURL* easy, quint64 serial, CURLcode result);

    struct Registration
    {
        Client* client = nullptr;
        quint64 serial = 0;   // 0 is never given out
    };

    CURLM* mMulti;
    QTimer* mTimer;
    QHash<curl_socket_t, QSocketNotifier*> mReaders;
    QHash<curl_socket_t, QSocketNotifier*> mWriters;
    QHash<CURL*, Registration> mClients;
    quint64 mNextSerial = 1;
};
