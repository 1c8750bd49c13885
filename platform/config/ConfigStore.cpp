#include "platform/config/ConfigStore.h"

#include "platform/config/ConfigValue.h"
#include "platform/log/LogLine.h"

#include <QFileInfo>
#include <QSettings>

#include <algorithm>

ConfigStore* ConfigStore::instance()
{
    static ConfigStore store;
    return &store;
}

void ConfigStore::registerValue(ConfigValue* value)
{
    QWriteLocker guard(&mLock);
    mValues.append(value);
}

void ConfigStore::unregisterValue(ConfigValue* value)
{
    QWriteLocker guard(&mLock);
    mValues.removeAll(value);
}

QList<const ConfigValue*> ConfigStore::values() const
{
    QList<const ConfigValue*> result;
    {
        QReadLocker guard(&mLock);
        for (const ConfigValue* value : mValues)
            result.append(value);
    }
    std::stable_sort(result.begin(), result.end(),
                     [](const ConfigValue* a, const ConfigValue* b) { return a->key() < b->key(); });
    return result;
}

bool ConfigStore::hasKey(const QString& key) const
{
    QReadLocker guard(&mLock);
    return std::any_of(mValues.begin(), mValues.end(), [&](const ConfigValue* v) { return v->key() == key; });
}

bool ConfigStore::lookup(const QString& key, QString* text) const
{
    QReadLocker guard(&mLock);
    auto it = mOverrides.constFind(key);
    if (it == mOverrides.constEnd())
        return false;
    *text = it.value();
    return true;
}

bool ConfigStore::check(const QString& key, const QString& text, QString* error) const
{
    QReadLocker guard(&mLock);
    return checkValueLocked(key, text, error);
}

bool ConfigStore::set(const QString& key, const QString& text, QString* error)
{
    QWriteLocker guard(&mLock);
    if (!checkValueLocked(key, text, error))
        return false;
    mOverrides.insert(key, text);
    return true;
}

void ConfigStore::unset(const QString& key)
{
    QWriteLocker guard(&mLock);
    mOverrides.remove(key);
}

void ConfigStore::clearOverrides()
{
    QWriteLocker guard(&mLock);
    mOverrides.clear();
}

bool ConfigStore::checkValueLocked(const QString& key, const QString& text, QString* error) const
{
    bool known = false;
    for (const ConfigValue* value : mValues) {
        if (value->key() != key)
            continue;
        known = true;
        if (!value->accepts(text)) {
            if (error)
                *error = QStringLiteral("configuration key \"%1\" expects %2, got \"%3\"")
                             .arg(key, QString::fromLatin1(value->typeName()), text);
            return false;
        }
    }
    if (!known && error)
        *error = QStringLiteral("unknown configuration key \"%1\" (--list-config shows every key)").arg(key);
    return known;
}

namespace {

// An INI value holding a comma comes back from QSettings as a list unless it was quoted; the
// comma was meant, so the pieces are joined again.
QString settingText(const QVariant& value)
{
    if (value.userType() == QMetaType::QStringList)
        return value.toStringList().join(QLatin1Char(','));
    return value.toString();
}

} // namespace

bool ConfigStore::loadSettingsFile(const QString& path)
{
    QFileInfo info(path);
    if (!info.exists())
        return false;
    if (!info.isFile() || !info.isReadable()) {
        LOG_WARN << "settings file " << path << " is not readable; using the defaults";
        return false;
    }
    QSettings settings(path, QSettings::IniFormat);
    const QStringList keys = settings.allKeys();
    if (settings.status() != QSettings::NoError) {
        LOG_WARN << "settings file " << path << " is malformed; using the defaults";
        return false;
    }
    for (const QString& key : keys) {
        QString error;
        if (!set(key, settingText(settings.value(key)), &error))
            LOG_WARN << "settings file " << path << ": " << error << "; keeping the default";
    }
    return true;
}
