#pragma once

#include <QDBusConnection>
#include <QDBusVirtualObject>

class DataValue;

// The process's data values on the bus, at /DataValues, interface com.kelvramotors.DataValues:
//   Get(s name) -> (b valid, v value)    List() -> as    Set(s name, v value)
//   signal Changed(s name, b valid, v value), on every committed change of any value.
// Set is allowed only for the values other processes may write (GUI_canUseInternet); any other
// known name gets com.kelvramotors.Error.ReadOnly, an unknown name
// com.kelvramotors.Error.UnknownValue, a value of the wrong type InvalidArgs; the value is then
// unchanged.
//
// Thread: main thread; changes made on other threads arrive through queued signals.
// Does not own the values (they live for the whole process).
class DataValueBusObject : public QDBusVirtualObject
{
    Q_OBJECT
public:
    explicit DataValueBusObject(const QDBusConnection& connection, QObject* parent = nullptr);

    QString introspect(const QString& path) const override;
    bool handleMessage(const QDBusMessage& message, const QDBusConnection& connection) override;

private slots:
    void valueChanged(DataValue* value);

private:
    void get(const QDBusMessage& message);
    void set(const QDBusMessage& message);
    DataValue* findOrRefuse(const QDBusMessage& message);

    QDBusConnection mConnection;
};
