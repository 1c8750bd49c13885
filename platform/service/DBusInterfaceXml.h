#pragma once

#include "platform/service/ServiceMethod.h"

// Introspection XML generated from a method table, so `busctl introspect` and `gdbus introspect`
// show exactly what the service dispatches.
namespace DBusInterfaceXml {

// The <interface> element of a served interface.
QString interfaceXml(const QString& dbusInterface, const ServiceMethodTable& table);
// A whole node document: the given interface elements plus org.freedesktop.DBus.Introspectable.
QString nodeXml(const QString& interfaceElements);

} // namespace DBusInterfaceXml
