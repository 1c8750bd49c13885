// Service hosting on D-Bus. The service manager is built on this setting; it lives here, beside
// the code that reads it.

#include "platform/config/ConfigStringValue.h"

namespace {

// "session", "system", or a bus address such as "unix:path=/run/x".
ConfigStringValue sBus("service/bus", QStringLiteral("session"));

} // namespace
