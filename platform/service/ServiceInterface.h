#pragma once

#include "platform/service/ServiceMethod.h"
#include "platform/service/ServiceStatistics.h"

#include <QObject>

class ServiceCallContext;

enum ServiceInstanceType { ClientInstance = 1, ServerInstance = 2 };

// The base of every service interface the process serves or calls. A generated interface
// (see tools/gen-service) supplies the method table, dispatch by method name and, per
// request, the skeleton that unpacks and answers it and the proxy that calls it from a client.
//
// Server role: the framework hands each request to processRequest() in a context; the answer
// goes back through the context (see ServiceCallContext for local versus remote calls).
// Client role: execute() sends a prepared context to the service over the bus and waits for
// the answer, at most timeout(method) milliseconds.
//
// Thread: main thread. Failure: transport failures and refused requests end in the context's
// error (false from execute()), never in an exception.
class ServiceInterface : public QObject
{
    Q_OBJECT
public:
    ServiceInterface(const QString& serviceName, const QString& interfaceName, ServiceInstanceType type,
                     QObject* parent = nullptr);

    QString serviceName() const { return mServiceName; }
    QString interfaceName() const { return mInterfaceName; }
    ServiceInstanceType instanceType() const { return mInstanceType; }

    virtual void processRequest(ServiceCallContext* context) = 0;
    virtual void processResponse(ServiceCallContext* context) = 0;
    virtual int timeout(QString method) = 0;
    virtual int netStatsCategory(const QString& method) = 0;
    virtual bool methodExists(QString method) = 0;
    // Free text the service adds to its "ServiceStatus" answer.
    virtual QString serviceStatusInfo();

    // The requests this interface serves or calls (set by the generated constructor).
    const ServiceMethodTable& methodTable() const { return *mMethodTable; }

    ServiceStatistics& statistics() { return mStatistics; }

    // Connects this interface's completion signals, given as normalised signatures
    // ("stopCompleted(ServiceCallContext*,bool&)"), to the receiver's slots of the same
    // signature, for callers inside the process. Returns how many were connected.
    int connectCompletedSignals(QObject* receiver, const char* const* signatures, int count);

protected:
    void setMethodTable(const ServiceMethodTable* table) { mMethodTable = table; }
    // Answers "ServiceStatus": uptime, requests, average and maximum time as JSON text.
    void answerServiceStatus(ServiceCallContext* context);
    // Client role: sends the prepared context and waits for the answer; false, with the
    // context's error set, when the call failed.
    bool execute(ServiceCallContext* context);
    // Client role: sends the prepared context; the answer arrives later in processResponse().
    bool executeAsync(ServiceCallContext* context);

private:
    const QString mServiceName;
    const QString mInterfaceName;
    const ServiceInstanceType mInstanceType;
    ServiceStatistics mStatistics;
    const ServiceMethodTable* mMethodTable = nullptr;
};
