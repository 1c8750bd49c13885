#include "platform/datavalue/DataValueManager.h"

#include "platform/core/RuntimeEnv.h"
#include "platform/datavalue/DataValue.h"
#include "platform/log/LogLine.h"

#include <QFileInfo>
#include <QSettings>

DataValueManager* DataValueManager::instance()
{
    // Created by the first data value during static initialisation, so it outlives them all.
    static DataValueManager manager;
    return &manager;
}

void DataValueManager::registerValue(DataValue* value)
{
    QMutexLocker guard(&mLock);
    if (mValues.contains(value->name()))
        Logger::logAssert("!mValues.contains(value->name())",
                          QStringLiteral("data value %1 registered twice").arg(value->name()), __FILE__, __LINE__);
    mValues.insert(value->name(), value);
}

void DataValueManager::unregisterValue(DataValue* value)
{
    QMutexLocker guard(&mLock);
    if (mValues.value(value->name()) == value)
        mValues.remove(value->name());
}

DataValue* DataValueManager::find(const QString& name) const
{
    QMutexLocker guard(&mLock);
    return mValues.value(name);
}

QStringList DataValueManager::names() const
{
    QStringList result;
    {
        QMutexLocker guard(&mLock);
        result = mValues.keys();
    }
    result.sort();
    return result;
}

QString DataValueManager::initialValuesFile()
{
    return RuntimeEnv::configFolder() + QStringLiteral("/CabinMediaServer2-values.conf");
}

bool DataValueManager::loadInitialValues()
{
    return loadInitialValues(initialValuesFile());
}

bool DataValueManager::loadInitialValues(const QString& path)
{
    QFileInfo info(path);
    if (!info.exists())
        return false;
    QSettings file(path, QSettings::IniFormat);
    const QStringList keys = file.allKeys();
    if (!info.isReadable() || file.status() != QSettings::NoError) {
        LOG_WARN << "initial values file " << path << " is unreadable or malformed; keeping the built-in values";
        return false;
    }
    for (const QString& name : keys)
        applyInitialValue(path, name, file.value(name));
    return true;
}

void DataValueManager::applyInitialValue(const QString& path, const QString& name, const QVariant& value)
{
    DataValue* target = find(name);
    if (!target) {
        LOG_WARN << "initial values file " << path << ": no data value named " << name;
        return;
    }
    if (!target->setFromVariant(value))
        LOG_WARN << "initial values file " << path << ": " << value.toString() << " is not a valid value for " << name;
}

void DataValueManager::startLogging(DataValue* value)
{
    connect(value, &DataValue::valueChanged, this, &DataValueManager::logChange, Qt::UniqueConnection);
}

void DataValueManager::logChange(DataValue* value)
{
    LOG_INFO << value->name() << " changed: " << value->toString();
}
