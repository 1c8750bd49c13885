#pragma once

#include <QList>
#include <QMetaType>
#include <QString>

// One request of a service as the transport sees it: its name, its arguments by name and type,
// the type of its answer and its time-out. The generated service interfaces describe
// themselves with a table of these; dispatch, argument unpacking on the bus and introspection
// all read the same table, so they cannot disagree.
struct ServiceArgument
{
    QString name;
    QMetaType::Type type;   // Int, QString or Bool
};

struct ServiceMethod
{
    QString name;
    QList<ServiceArgument> arguments;
    // Bool for a yes/no answer, QString for a response body (JSON text), Void for none.
    QMetaType::Type resultType = QMetaType::Void;
    int timeoutMs = 0;
};

using ServiceMethodTable = QList<ServiceMethod>;

// The D-Bus signature of a table type ("i", "s", "b"; "" for Void).
const char* dbusSignatureFor(QMetaType::Type type);
const ServiceMethod* findServiceMethod(const ServiceMethodTable& table, const QString& name);
