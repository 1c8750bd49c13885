#pragma once

#include <QHash>
#include <QMutex>
#include <QObject>
#include <QStringList>

class DataValue;

// The registry of the process's data values by name, through which the bus and the command-line
// client reach them. Values register themselves when constructed (at static initialisation)
// and leave when destroyed.
//
// Also: loadInitialValues() applies the initial values file, so a deployment can start with a
// value other than the compiled-in one (for example GUI_canUseInternet=false on a car without a
// modem); startLogging() logs every change of the values that matter when reading a log.
//
// Thread: registry calls from any thread (mLock guards mValues). The object itself lives on the
// main thread; change logging runs there. Failure: bad lines of the values file are logged one
// by one and skipped.
class DataValueManager : public QObject
{
    Q_OBJECT
public:
    static DataValueManager* instance();

    void registerValue(DataValue* value);
    void unregisterValue(DataValue* value);
    DataValue* find(const QString& name) const;
    // Every registered name, sorted.
    QStringList names() const;

    // $XDG_CONFIG_HOME (or ~/.config) + "/KelvraMotors/CabinMediaServer2-values.conf": lines
    // NAME=VALUE (INI). A missing file is normal.
    static QString initialValuesFile();
    bool loadInitialValues();
    bool loadInitialValues(const QString& path);

    // Logs "NAME changed: TEXT" on every broadcast change of the value.
    void startLogging(DataValue* value);

private slots:
    void logChange(DataValue* value);

private:
    DataValueManager() = default;
    void applyInitialValue(const QString& path, const QString& name, const QVariant& value);

    mutable QMutex mLock;
    QHash<QString, DataValue*> mValues;   // guarded by mLock
};
