#pragma once

#include <QStringList>

class DataPublisherClient;
class DataValuesClient;
class MediaServer2;
class QRegularExpression;
class ServiceCallContext;
class SubcommandLine;

// cabin-mediactl: drives a running media server over the bus, for people at a shell and for
// scripts and tests. Each subcommand is one request or one data-value operation; the global
// options (--bus, --help, --version) come before it.
//
// Exit statuses: 0 a true answer, 1 a false answer (or an invalid value), 3 a time-out,
// 2 a usage error or a transport failure, each with one line on stderr. A transport failure
// (no bus, no server, access denied) reads the same whichever subcommand met it.
//
// Thread: main thread; runs its own short event loop for `wait` and `load`'s progress, and the
// application's event loop for `watch` until its count is reached or SIGINT/SIGTERM ends it.
// Requests are in MediaCtl.cpp, data values and status messages in MediaCtlValues.cpp.
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

    bool takeGlobalOptions(QStringList* args, int* status);
    bool takeBus(const QString& address, int* status);
    bool connect();
    int failCall(const QString& what, const QString& errorName, const QString& text, int timeoutMs) const;
    int answerOf(bool answer, const ServiceCallContext& context);
    int simpleRequest(const QString& name, const QString& description, const QStringList& args,
                      bool (MediaServer2::*call)(ServiceCallContext*));
    int positionRequest(SubcommandLine* line, const QStringList& args, int minArguments,
                        bool (MediaServer2::*call)(const int&, ServiceCallContext*));
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

    QString mBus = QStringLiteral("session");
    MediaServer2* mProxy = nullptr;
    DataValuesClient* mValues = nullptr;
    DataPublisherClient* mPublishers = nullptr;
};
