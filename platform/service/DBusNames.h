#pragma once

#include <QString>

// How services map onto D-Bus names: bus name "com.kelvramotors.<service>", object path
// "/<interface>", D-Bus interface "com.kelvramotors.<interface>"; and the framework's own
// error names.
namespace DBusNames {

QString busName(const QString& serviceName);
QString objectPath(const QString& interfaceName);
QString interfaceName(const QString& interfaceName);

inline const char* readOnlyError() { return "com.kelvramotors.Error.ReadOnly"; }
inline const char* unknownValueError() { return "com.kelvramotors.Error.UnknownValue"; }
inline const char* unknownMessageError() { return "com.kelvramotors.Error.UnknownMessage"; }
// The service refused or could not carry out the request.
inline const char* failedError() { return "com.kelvramotors.Error.Failed"; }
// A deferred request the service did not answer in twice its time-out.
inline const char* noAnswerError() { return "com.kelvramotors.Error.NoAnswer"; }

} // namespace DBusNames
