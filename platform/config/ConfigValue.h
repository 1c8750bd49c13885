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
    // help: what the value governs and its unit, one line for --list-config --verbose.
    ConfigValue(const QString& key, const char* typeName, const char* help);
    virtual ~ConfigValue();
    ConfigValue(const ConfigValue&) = delete;
    ConfigValue& operator=(const ConfigValue&) = delete;

    const QString& key() const { return mKey; }
    // "int", "unsigned int", "bool", "real" or "string".
    const char* typeName() const { return mTypeName; }
    const char* help() const { return mHelp; }
    virtual QString defaultText() const = 0;
    // Whether the text parses as this object's type and lies within its range.
    virtual bool accepts(const QString& text) const = 0;
    // The valid range in words ("from 0.0 to 10.0", "at least 1"), empty when any value of the
    // type is valid.
    virtual QString rangeText() const { return QString(); }
    // The value in force, as its type prints it ("yes" in force lists as "true").
    virtual QString currentText() const;

protected:
    // The override in force for the key, if any.
    bool overrideText(QString* text) const;

private:
    const QString mKey;
    const char* const mTypeName;
    const char* const mHelp;
};
