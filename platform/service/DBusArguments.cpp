#include "platform/service/DBusArguments.h"

#include "platform/datavalue/VariantConversion.h"

#include <QDBusArgument>
#include <QDBusVariant>

namespace DBusArguments {

namespace {

// Undeclared keys are only reported back as ignored, and a real caller adds a handful at most;
// a request with more is refused before the rest is read, so thousands of keys cost neither
// main-thread time nor memory.
constexpr int kMaxUndeclaredArguments = 64;

QString typeName(int type)
{
    switch (type) {
    case QMetaType::Int: return QStringLiteral("int32 (i)");
    case QMetaType::UInt: return QStringLiteral("uint32 (u)");
    case QMetaType::LongLong: return QStringLiteral("int64 (x)");
    case QMetaType::ULongLong: return QStringLiteral("uint64 (t)");
    case QMetaType::Double: return QStringLiteral("double (d)");
    case QMetaType::QString: return QStringLiteral("string (s)");
    case QMetaType::Bool: return QStringLiteral("boolean (b)");
    default: return type == qMetaTypeId<QDBusArgument>() ? QStringLiteral("a container") : QString::fromLatin1(QMetaType(type).name());
    }
}

bool isNamedForm(const QDBusMessage& message)
{
    return message.signature() == QLatin1String("a{sv}");
}

QVariant unwrap(const QVariant& value)
{
    if (value.userType() == qMetaTypeId<QDBusVariant>())
        return value.value<QDBusVariant>().variant();
    return value;
}

bool takeValue(const QString& name, const QVariant& raw, QMetaType::Type type, QVariantMap* arguments, QString* error)
{
    QVariant converted;
    if (!convertStrictly(unwrap(raw), type, &converted)) {
        *error = QStringLiteral("argument \"%1\" must be %2, got %3")
                     .arg(name, typeName(type), typeName(unwrap(raw).userType()));
        return false;
    }
    arguments->insert(name, converted);
    return true;
}

const ServiceArgument* declaredArgument(const ServiceMethod& method, const QString& name)
{
    for (const ServiceArgument& argument : method.arguments)
        if (argument.name == name)
            return &argument;
    return nullptr;
}

// Read entry by entry from the message, so that a refused map is never built in memory.
bool readNamedEntries(const QDBusArgument& named, const ServiceMethod& method, QVariantMap* arguments, QString* error)
{
    int undeclared = 0;
    while (!named.atEnd()) {
        QString name;
        QDBusVariant value;
        named.beginMapEntry();
        named >> name >> value;
        named.endMapEntry();
        const ServiceArgument* declared = declaredArgument(method, name);
        if (declared) {
            if (!takeValue(name, value.variant(), declared->type, arguments, error))
                return false;
        } else if (++undeclared > kMaxUndeclaredArguments) {
            *error = QStringLiteral("more than %1 undeclared arguments for %2").arg(kMaxUndeclaredArguments).arg(method.name);
            return false;
        } else {
            arguments->insert(name, value.variant());
        }
    }
    return true;
}

// endMap() whatever the entries held: a map left open keeps the reader that opened it, and
// with it the whole message, for the life of the process.
bool fromNamedForm(const QDBusMessage& message, const ServiceMethod& method, QVariantMap* arguments, QString* error)
{
    const QDBusArgument named = message.arguments().value(0).value<QDBusArgument>();
    named.beginMap();
    const bool read = readNamedEntries(named, method, arguments, error);
    named.endMap();
    return read;
}

bool fromPositionalForm(const QDBusMessage& message, const ServiceMethod& method, QVariantMap* arguments, QString* error)
{
    const QVariantList values = message.arguments();
    for (int i = 0; i < values.size(); ++i) {
        if (i >= method.arguments.size()) {
            arguments->insert(QStringLiteral("arg%1").arg(i), QVariant(QString()));
            continue;
        }
        if (!takeValue(method.arguments.at(i).name, values.at(i), method.arguments.at(i).type, arguments, error))
            return false;
    }
    return true;
}

} // namespace

bool convertStrictly(const QVariant& value, QMetaType::Type type, QVariant* converted)
{
    switch (type) {
    case QMetaType::Int: {
        int number = 0;
        if (value.userType() == QMetaType::QString || !VariantConversion::toInt(value, &number))
            return false;
        *converted = number;
        return true;
    }
    case QMetaType::Bool: {
        bool flag = false;
        if (value.userType() != QMetaType::Bool && !VariantConversion::toBool(value, &flag))
            return false;
        *converted = value.userType() == QMetaType::Bool ? value.toBool() : flag;
        return true;
    }
    case QMetaType::QString: {
        QString text;
        if (!VariantConversion::toString(value, &text))
            return false;
        *converted = text;
        return true;
    }
    default:
        return false;
    }
}

qint64 payloadBytes(const QVariant& value)
{
    switch (value.userType()) {
    case QMetaType::QString: return value.toString().toUtf8().size();
    case QMetaType::QByteArray: return value.toByteArray().size();
    case QMetaType::Bool:
    case QMetaType::Int:
    case QMetaType::UInt: return 4;
    case QMetaType::QVariantMap: return payloadBytes(value.toMap());
    default: return value.isValid() ? 8 : 0;
    }
}

qint64 payloadBytes(const QVariantMap& arguments)
{
    qint64 bytes = 0;
    for (auto it = arguments.cbegin(); it != arguments.cend(); ++it)
        bytes += it.key().toUtf8().size() + payloadBytes(it.value());
    return bytes;
}

bool toNamedArguments(const QDBusMessage& message, const ServiceMethod& method, QVariantMap* arguments, QString* error)
{
    arguments->clear();
    if (isNamedForm(message))
        return fromNamedForm(message, method, arguments, error);
    return fromPositionalForm(message, method, arguments, error);
}

} // namespace DBusArguments
