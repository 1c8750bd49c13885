#include "platform/service/ServiceInterface.h"

#include "platform/service/DBusServiceClient.h"
#include "platform/service/ServiceCallContext.h"
#include "platform/service/ServiceManager.h"

#include <QMetaMethod>

ServiceInterface::ServiceInterface(const QString& serviceName, const QString& interfaceName, ServiceInstanceType type,
                                   QObject* parent)
    : QObject(parent)
    , mServiceName(serviceName)
    , mInterfaceName(interfaceName)
    , mInstanceType(type)
{
    static const ServiceMethodTable kNoMethods;
    mMethodTable = &kNoMethods;
}

QString ServiceInterface::serviceStatusInfo()
{
    return QString();
}

int ServiceInterface::connectCompletedSignals(QObject* receiver, const char* const* signatures, int count)
{
    int connected = 0;
    for (int i = 0; i < count; ++i) {
        const int signalIndex = metaObject()->indexOfSignal(signatures[i]);
        const int slotIndex = receiver->metaObject()->indexOfMethod(signatures[i]);
        if (signalIndex < 0 || slotIndex < 0)
            continue;
        if (connect(this, metaObject()->method(signalIndex), receiver, receiver->metaObject()->method(slotIndex)))
            ++connected;
    }
    return connected;
}

void ServiceInterface::answerServiceStatus(ServiceCallContext* context)
{
    // Formatted in one pass: a status poll is the cheapest request there is and should stay so.
    QByteArray status = QByteArray("{\"uptime\":") + QByteArray::number(mStatistics.uptimeSeconds())
        + ", \"requests\":" + QByteArray::number(mStatistics.requests())
        + ", \"avgtime\":" + QByteArray::number(mStatistics.averageMs())
        + ", \"maxtime\":" + QByteArray::number(mStatistics.maximumMs())
        + ", \"info\":\"" + serviceStatusInfo().toUtf8() + "\"}";
    context->setResponseBody(status, QStringLiteral("application/json"));
    context->resultReady();
}

bool ServiceInterface::execute(ServiceCallContext* context)
{
    return ServiceManager::instance()->client()->call(this, context);
}

bool ServiceInterface::executeAsync(ServiceCallContext* context)
{
    return ServiceManager::instance()->client()->callAsync(this, context);
}
