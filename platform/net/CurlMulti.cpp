#include "platform/net/CurlMulti.h"

#include <QSocketNotifier>
#include <QTimer>

CurlMulti* CurlMulti::instance()
{
    static CurlMulti* multi = nullptr;
    if (!multi) {
        // Normally done by URLResolver::init() at start-up; a second call only counts up.
        curl_global_init(CURL_GLOBAL_DEFAULT);
        multi = new CurlMulti;   // lives as long as the process: curl may call back until exit
    }
    return multi;
}

CurlMulti::CurlMulti()
    : mMulti(curl_multi_init())
    , mTimer(new QTimer(this))
{
    mTimer->setSingleShot(true);
    connect(mTimer, &QTimer::timeout, this, [this] { act(CURL_SOCKET_TIMEOUT, 0); });
    curl_multi_setopt(mMulti, CURLMOPT_SOCKETFUNCTION, &CurlMulti::onSocket);
    curl_multi_setopt(mMulti, CURLMOPT_SOCKETDATA, this);
    curl_multi_setopt(mMulti, CURLMOPT_TIMERFUNCTION, &CurlMulti::onTimer);
    curl_multi_setopt(mMulti, CURLMOPT_TIMERDATA, this);
}

CurlMulti::~CurlMulti()
{
    curl_multi_cleanup(mMulti);
}

void CurlMulti::add(CURL* easy, Client* client)
{
    mClients.insert(easy, Registration{client, mNextSerial++});
    curl_multi_add_handle(mMulti, easy);
}

void CurlMulti::remove(CURL* easy)
{
    if (mClients.remove(easy))
        curl_multi_remove_handle(mMulti, easy);
}

void CurlMulti::kick()
{
    QMetaObject::invokeMethod(this, [this] { act(CURL_SOCKET_TIMEOUT, 0); }, Qt::QueuedConnection);
}

int CurlMulti::onSocket(CURL*, curl_socket_t socket, int what, void* self, void*)
{
    static_cast<CurlMulti*>(self)->watch(socket, what);
    return 0;
}

int CurlMulti::onTimer(CURLM*, long timeoutMs, void* self)
{
    auto* multi = static_cast<CurlMulti*>(self);
    if (timeoutMs < 0)
        multi->mTimer->stop();
    else
        multi->mTimer->start(int(timeoutMs));
    return 0;
}

// Notifiers are disabled and deleted later rather than deleted here: curl calls this from
// inside curl_multi_socket_action, possibly for the socket whose notifier is firing.
void CurlMulti::watch(curl_socket_t socket, int what)
{
    auto setWatched = [this, socket](QHash<curl_socket_t, QSocketNotifier*>& notifiers, bool wanted,
                                     QSocketNotifier::Type type, int event) {
        QSocketNotifier* notifier = notifiers.value(socket);
        if (wanted && !notifier) {
            notifier = new QSocketNotifier(socket, type, this);
            connect(notifier, &QSocketNotifier::activated, this, [this, socket, event] { act(socket, event); });
            notifiers.insert(socket, notifier);
        } else if (!wanted && notifier) {
            notifier->setEnabled(false);
            notifier->deleteLater();
            notifiers.remove(socket);
        }
    };
    const bool remove = what == CURL_POLL_REMOVE;
    setWatched(mReaders, !remove && (what & CURL_POLL_IN), QSocketNotifier::Read, CURL_CSELECT_IN);
    setWatched(mWriters, !remove && (what & CURL_POLL_OUT), QSocketNotifier::Write, CURL_CSELECT_OUT);
}

void CurlMulti::act(curl_socket_t socket, int events)
{
    int running = 0;
    curl_multi_socket_action(mMulti, socket, events, &running);
    collectFinished();
}

void CurlMulti::collectFinished()
{
    int left = 0;
    while (CURLMsg* message = curl_multi_info_read(mMulti, &left)) {
        if (message->msg != CURLMSG_DONE)
            continue;
        CURL* easy = message->easy_handle;
        const CURLcode result = message->data.result;
        const quint64 serial = mClients.value(easy).serial;
        QMetaObject::invokeMethod(this, [this, easy, serial, result] { deliver(easy, serial, result); }, Qt::QueuedConnection);
    }
}

void CurlMulti::deliver(CURL* easy, quint64 serial, CURLcode result)
{
    const auto registration = mClients.constFind(easy);
    if (registration == mClients.cend() || registration->serial != serial)
        return;   // removed meanwhile, perhaps with a new transfer at the same address since
    Client* client = registration->client;
    mClients.erase(registration);
    curl_multi_remove_handle(mMulti, easy);
    client->transferFinished(result);
}
