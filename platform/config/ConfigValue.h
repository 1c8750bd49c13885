#pragma once

#include <QString>

// One tunable of the process: a slash-separated key, a type and a compiled-in default. The
// value in force is the command-line override, else the settings file's value, else the
// default; it is looked up at every read, so a changed setting takes effect at the next use.
//
// Objects are constructed at static-initialisation time in the source file that reads them
// and register themselves with the ConfigStore. Two objects may share one key (with different
// defaults): setting the key sets both.
//
// Thread: reads are safe from any thread (a read lock and a hash lookup in the store).
class ConfigValue
{
public:
    ConfigValue(const QString& key, const char* typeName);
    virtual ~ConfigValue();
    ConfigValue(const ConfigValue&) = delete;
    ConfigValue& operator=(const ConfigValue&) = delete;

    const QString& key() const { return mKey; }
    // "int", "unsigned int", "bool", "real" or "string".
    const char* typeName() const { return mTypeName; }
    virtual QString defaultText() const = 0;
    // Whether the text parses as this object's type.
    virtual bool accepts(const QString& text) const = 0;
    // The value in force, as text.
    QString currentText() const;

protected:
    // The override in force for the key, if any.
    bool overrideText(QString* text) const;

private:
    const QString mKey;
    const char* const mTypeName;
};
