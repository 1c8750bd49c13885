#include "platform/service/ServiceManagerRegistrar.h"

#include <QHash>

namespace {

QList<ServiceManagerRegistrar::Registration>& registrationList()
{
    static QList<ServiceManagerRegistrar::Registration> list;
    return list;
}

QHash<const QMetaObject*, const QMetaObject*>& implementations()
{
    static QHash<const QMetaObject*, const QMetaObject*> map;
    return map;
}

} // namespace

ServiceManagerRegistrar::ServiceManagerRegistrar(const QString& serviceName, const QString& interfaceName,
                                                 const QMetaObject* metaObject, ServiceInstanceType instanceType,
                                                 const QStringList& dependencies)
{
    registrationList().append(Registration{serviceName, interfaceName, metaObject, instanceType, dependencies});
}

void ServiceManagerRegistrar::implement(const QMetaObject* base, const QMetaObject* implementation)
{
    implementations().insert(base, implementation);
}

QList<ServiceManagerRegistrar::Registration> ServiceManagerRegistrar::registrations()
{
    return registrationList();
}

const QMetaObject* ServiceManagerRegistrar::implementationOf(const QMetaObject* base)
{
    return implementations().value(base, base);
}
