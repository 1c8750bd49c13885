#include "platform/core/RuntimeEnv.h"

#include "platform/config/ConfigStore.h"

#include <QDir>

RuntimeEnv* RuntimeEnv::instance()
{
    static RuntimeEnv env;
    return &env;
}

QString RuntimeEnv::configFolder()
{
    QString base = qEnvironmentVariable("XDG_CONFIG_HOME");
    if (base.isEmpty())
        base = QDir::homePath() + QStringLiteral("/.config");
    return base + QStringLiteral("/KelvraMotors");
}

QString RuntimeEnv::defaultSettingsFile()
{
    return configFolder() + QStringLiteral("/CabinMediaServer2.conf");
}

// Accepts "--option VALUE" and "--option=VALUE"; returns false when arg is another option.
bool RuntimeEnv::takeOptionValue(const QString& arg, const QString& option, int* index, int argc,
                                 const char* const* argv, QString* value, QString* error)
{
    if (arg.startsWith(option + QLatin1Char('='))) {
        *value = arg.mid(option.size() + 1);
        return true;
    }
    if (arg != option)
        return false;
    if (*index + 1 >= argc) {
        *error = option + QStringLiteral(" needs a value");
        *value = QString();
        return true;
    }
    *value = QString::fromLocal8Bit(argv[++*index]);
    return true;
}

bool RuntimeEnv::addOverride(const QString& assignment, Args* args, QString* error)
{
    const int equals = assignment.indexOf(QLatin1Char('='));
    if (equals <= 0) {
        *error = QStringLiteral("--set expects KEY=VALUE, got \"%1\"").arg(assignment);
        return false;
    }
    const QString key = assignment.left(equals);
    const QString value = assignment.mid(equals + 1);
    if (!ConfigStore::instance()->check(key, value, error))
        return false;
    args->overrides.append(qMakePair(key, value));
    return true;
}

bool RuntimeEnv::parseArgs(int argc, const char* const* argv, Args* args, QString* error)
{
    *args = Args();
    error->clear();
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        QString value;
        if (takeOptionValue(arg, QStringLiteral("--config"), &i, argc, argv, &value, error)) {
            if (!error->isEmpty())
                return false;
            // Named on the command line, the file is a promise: only the default may be absent.
            if (!ConfigStore::checkSettingsFile(value, error))
                return false;
            args->configFile = value;
        } else if (takeOptionValue(arg, QStringLiteral("--set"), &i, argc, argv, &value, error)) {
            if (!error->isEmpty() || !addOverride(value, args, error))
                return false;
        }
    }
    return true;
}

bool RuntimeEnv::setFromArgs(int argc, const char* const* argv)
{
    Args args;
    if (!parseArgs(argc, argv, &args, &mError))
        return false;
    ConfigStore* store = ConfigStore::instance();
    mSettingsFile = args.configFile.isEmpty() ? defaultSettingsFile() : args.configFile;
    store->loadSettingsFile(mSettingsFile);
    for (const auto& item : args.overrides)
        store->set(item.first, item.second, nullptr);
    return true;
}
