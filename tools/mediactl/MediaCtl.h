#pragma once

#include <QStringList>

class DataPublisherClient;
class DataValuesClient;
class MediaServer2;
class QRegularExpression;
class ServiceCallContext;

// cabin-mediactl: drives a running media server over the bus, for people at a shell and for
// scripts and tests. Each subcommand is one request or one data-value operation.
//
// Exit statuses: 0 a true answer, 1 a false answer (or an invalid value), 3 a time-out,
// 2 a usage error or a transport failure, each with one line on stderr.
//
// Thread: main thread; runs its own short event loop for `wait`, and the application's event
// loop for `watch` until its count is reached or SIGINT/SIGTERM ends it.
class MediaCtl
{
public:
    enum Status { True = 0, False = 1, Failure = 2, TimedOut = 3 };

    // args without the program name.
    int run(const QStringList& args);

private:
    using Handler = int (MediaCtl::*)(const QStringList&);
    struct Subcommand
    {
        const char* name;
        const char* synopsis;
        const char* description;
        Handler handler;
    };
    static const QList<Subcommand>& subcommands();
    static QString usage();

    bool takeBusOption(QStringList* args);
    bool connect();
    int answerOf(bool answer, const ServiceCallContext& context);
    int simpleRequest(const QString& name, const QString& description, const QStringList& args,
                      bool (MediaServer2::*call)(ServiceCallContext*));
    int waitFor(const QString& name, const QRegularExpression& pattern, int timeoutMs);
    bool printStatus(const QString& subcommand, const QString& message, const QByteArray& body, bool json);
    int watchUntilDone(const QStringList& names, bool json, int count);

    int load(const QStringList& args);
    int play(const QStringList& args);
    int pause(const QStringList& args);
    int seek(const QStringList& args);
    int stop(const QStringList& args);
    int playFile(const QStringList& args);
    int stopFile(const QStringList& args);
    int serviceStatus(const QStringList& args);
    int get(const QStringList& args);
    int set(const QStringList& args);
    int values(const QStringList& args);
    int wait(const QStringList& args);
    int watch(const QStringList& args);
    int status(const QStringList& args);

    MediaServer2* mProxy = nullptr;
    DataValuesClient* mValues = nullptr;
    DataPublisherClient* mPublishers = nullptr;
};
