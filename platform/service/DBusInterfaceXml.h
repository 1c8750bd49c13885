#pragma once

#include <QDBusConnection>
#include <QDBusMessage>

#include "platform/service/ServiceMethod.h"

// Introspection XML generated from a method table, so `busctl introspect` and `gdbus introspect`
// show exactly what the service dispatches.
namespace DBusInterfaceXml {

// The <interface> element of a served interface.
QString interfaceXml(const QString& dbusInterface, const ServiceMethodTable& table);
// A whole node document: the given interface elements plus org.freedesktop.DBus.Introspectable.
QString nodeXml(const QString& interfaceElements);

// The answers every hand-written bus object gives alike: Introspect (with `interfaceElements`)
// and a call to an interface other than `dbusInterface` (UnknownInterface). True when the
// message was answered here.
bool answerIntrospectOrForeignInterface(const QDBusMessage& message, const QDBusConnection& connection,
                                        const QString& dbusInterface, const QString& interfaceElements);
// The UnknownMethod error for a member (and signature) the interface does not have.
void answerUnknownMethod(const QDBusMessage& message, const QDBusConnection& connection, const QString& dbusInterface);

} // namespace DBusInterfaceXml
