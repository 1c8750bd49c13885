#pragma once

#include "platform/service/ServiceInterface.h"

#include <QList>
#include <QStringList>

struct QMetaObject;

// Registers a service with the framework at static-initialisation time: an object of this class
// at namespace scope in the implementation's source file makes the framework create and serve
// the service when it starts. The framework creates the object through the meta-object's
// invokable constructor (no arguments).
//
// Qt's meta-objects know their bases but not their subclasses, so when the registered
// meta-object is a generated base (MediaServer2ImplBase), the implementation names itself
// with ServiceManagerRegistrar::implement() in the same file.
//
// Thread: static initialisation (single-threaded); read by ServiceManager::start().
class ServiceManagerRegistrar
{
public:
    struct Registration
    {
        QString serviceName;
        QString interfaceName;
        const QMetaObject* metaObject;
        ServiceInstanceType instanceType;
        QStringList dependencies;
    };

    ServiceManagerRegistrar(const QString& serviceName, const QString& interfaceName, const QMetaObject* metaObject,
                            ServiceInstanceType instanceType, const QStringList& dependencies);

    // The class to create for registrations of `base`; it must inherit base.
    static void implement(const QMetaObject* base, const QMetaObject* implementation);

    static QList<Registration> registrations();
    // The implementation registered for `base`, or base itself.
    static const QMetaObject* implementationOf(const QMetaObject* base);
};
