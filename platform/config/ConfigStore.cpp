#include "platform/config/ConfigStore.h"

#include "platform/config/ConfigValue.h"
#include "platform/log/LogLine.h"

#include <QFile>
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
            if (error) {
                const QString range = value->rangeText();
                const QString expected = QString::fromLatin1(value->typeName()) + (range.isEmpty() ? QString() : QLatin1Char(' ') + range);
                *error = QStringLiteral("configuration key \"%1\" expects %2, got \"%3\"").arg(key, expected, text);
            }
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

// Whether an INI value holds a ";" outside double quotes: QSettings takes it as the start of a
// comment and silently drops the rest of the value.
bool hasUnquotedSemicolon(const QString& value)
{
    bool quoted = false;
    for (int i = 0; i < value.size(); ++i) {
        if (value.at(i) == QLatin1Char('"') && (i == 0 || value.at(i - 1) != QLatin1Char('\\')))
            quoted = !quoted;
        else if (value.at(i) == QLatin1Char(';') && !quoted)
            return true;
    }
    return false;
}

// The keys, as QSettings names them ("section/key"), whose value a ";" cuts short.
QStringList keysCutBySemicolon(const QByteArray& contents)
{
QStringList keys;
    QString section;
    for (const QString& raw : QString::fromUtf8(contents).split(QLatin1Char('\n'))) {
        const QString line = raw.trimmed();
        if (line.startsWith(QLatin1Char('[')) && line.endsWith(QLatin1Char(']'))) {
            section = line.mid(1, line.size() - 2).trimmed();
            continue;
        }
        const int equals = line.indexOf(QLatin1Char('='));
        if (line.startsWith(QLatin1Char(';')) || equals <= 0 || !hasUnquotedSemicolon(line.mid(equals + 1)))
            continue;
        const QString key = line.left(equals).trimmed();
        keys.append(section.isEmpty() || section == QLatin1String("General") ? key : section + QLatin1Char('/') + key);
    }
    return keys;
}

// The number of the first line that is none of: blank, a ";" or "#" comment, "[section]",
// "key=value" with a key; 0 when every line is one of them.
int firstMalformedLine(const QByteArray& contents)
{
    const QList<QByteArray> lines = contents.split('\n');
    for (int i = 0; i < lines.size(); ++i) {
        const QByteArray line = lines.at(i).trimmed();
        const bool fine = line.isEmpty() || line.startsWith(';') || line.startsWith('#')
            || (line.startsWith('[') && line.endsWith(']')) || line.indexOf('=') > 0;
        if (!fine)
            return i + 1;
    }
    return 0;
}

// The file's contents, when it exists, can be read and has no malformed line; else *error
// says which of these failed.
bool readSettingsFile(const QString& path, QByteArray* contents, QString* error)
{
    const QFileInfo info(path);
    if (!info.exists()) {
        *error = QStringLiteral("settings file %1 does not exist").arg(path);
        return false;
    }
    QFile file(path);
    if (!info.isFile() || !file.open(QIODevice::ReadOnly | QIODevice::Text)) {
        *error = QStringLiteral("settings file %1 is not readable: %2").arg(path, info.isFile() ? file.errorString() : QStringLiteral("not a file"));
        return false;
    }
    *contents = file.readAll();
    const int bad = firstMalformedLine(*contents);
    if (bad > 0) {
        *error = QStringLiteral("settings file %1, line %2: neither [section], key=value nor a ; comment").arg(path).arg(bad);
        return false;
    }
    return true;
}

} // namespace

bool ConfigStore::checkSettingsFile(const QString& path, QString* error)
{
    QByteArray contents;
    return readSettingsFile(path, &contents, error);
}

bool ConfigStore::loadSettingsFile(const QString& path)
{
    if (!QFileInfo::exists(path))
        return false;
    QString error;
    QByteArray contents;
    if (!readSettingsFile(path, &contents, &error)) {
        LOG_WARN << error << "; using the defaults";
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
    for (const QString& key : keysCutBySemicolon(contents))
        LOG_WARN << "settings file " << path << ": the value of " << key
                 << " holds a \";\", which starts a comment and cuts the value there; quote the value to keep it whole";
    return true;
}
