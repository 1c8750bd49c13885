#include "platform/service/ServiceMethod.h"

const char* dbusSignatureFor(QMetaType::Type type)
{
    switch (type) {
    case QMetaType::Int: return "i";
    case QMetaType::QString: return "s";
    case QMetaType::Bool: return "b";
    default: return "";
    }
}

const ServiceMethod* findServiceMethod(const ServiceMethodTable& table, const QString& name)
{
    for (const ServiceMethod& method : table)
        if (method.name == name)
            return &method;
    return nullptr;
}
