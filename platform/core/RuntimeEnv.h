#pragma once

#include <QList>
#include <QPair>
#include <QString>

// The platform options of the command line and the settings file they choose:
//     --config FILE        settings file (INI) instead of the default one
//     --set KEY=VALUE      override one configuration key (repeatable; the last one wins)
// Layers, lowest first: compiled-in defaults, the settings file, the --set overrides.
// Other arguments are left to the program.
//
// Thread: main thread, during start-up. Failure: parseArgs() and setFromArgs() refuse an
// unknown key, a value that does not parse as the key's type or lies outside its range, and a
// --config file that is missing, unreadable or malformed, with a one-line error() and apply
// nothing; a bad default settings file is logged and the defaults stay.
class RuntimeEnv
{
public:
    struct Args
    {
        QString configFile;                          // empty: the default settings file
        QList<QPair<QString, QString>> overrides;    // in command-line order
    };

    static RuntimeEnv* instance();

    // Checks the platform options without applying anything.
    static bool parseArgs(int argc, const char* const* argv, Args* args, QString* error);
    // Applies the settings file and then the overrides.
    bool setFromArgs(int argc, const char* const* argv);
    QString error() const { return mError; }
    // The settings file in use after setFromArgs().
    QString settingsFile() const { return mSettingsFile; }

    // $XDG_CONFIG_HOME (or ~/.config) + "/KelvraMotors": where the process's own files live.
    static QString configFolder();
    // configFolder() + "/CabinMediaServer2.conf".
    static QString defaultSettingsFile();

private:
    RuntimeEnv() = default;
    static bool takeOptionValue(const QString& arg, const QString& option, int* index, int argc,
                                const char* const* argv, QString* value, QString* error);
    static bool addOverride(const QString& assignment, Args* args, QString* error);

    QString mError;
    QString mSettingsFile;
};
