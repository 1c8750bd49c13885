#pragma once

#include <QHash>
#include <QList>
#include <QReadWriteLock>
#include <QString>

class ConfigValue;

// The settings store behind every ConfigValue: the registry of configuration objects and the
// overrides in force (from the settings file and the command line; the later layer wins
// because it is applied later).
//
// Thread: any. mLock guards mValues and mOverrides; reads take it for reading only. The store
// is created by the first ConfigValue (static initialisation) and outlives every one of them.
// Failure: set() refuses unknown keys and unparsable values with a one-line reason;
// loadSettingsFile() logs one line per problem and keeps the defaults.
class ConfigStore
{
public:
    static ConfigStore* instance();

    void registerValue(ConfigValue* value);
    void unregisterValue(ConfigValue* value);

    // Every configuration object, ordered by key, objects of one key in registration order.
    QList<const ConfigValue*> values() const;
    bool hasKey(const QString& key) const;

    bool lookup(const QString& key, QString* text) const;
    // Whether set() would accept the text for the key, with the reason when not.
    bool check(const QString& key, const QString& text, QString* error) const;
    // Sets the key for every object that carries it. Refused, with *error saying why, when no
    // object has the key or the text does not parse as the type of each object of the key.
    bool set(const QString& key, const QString& text, QString* error);
    void unset(const QString& key);
    void clearOverrides();

    // Whether the settings file exists, can be read, and holds only blank lines, comments,
    // sections and key=value lines; *error says which, naming the first bad line, when not.
    static bool checkSettingsFile(const QString& path, QString* error);
    // Applies an INI settings file ("[media_buffer]" then "initial_threshold_bytes=200000").
    // A missing file is not an error (false, silently); one that fails checkSettingsFile() is
    // logged once and ignored as a whole; an unknown key or a bad value is logged and skipped.
    bool loadSettingsFile(const QString& path);

private:
    ConfigStore() = default;
    bool checkValueLocked(const QString& key, const QString& text, QString* error) const;

    mutable QReadWriteLock mLock;
    QList<ConfigValue*> mValues;          // guarded by mLock
    QHash<QString, QString> mOverrides;   // guarded by mLock
};
