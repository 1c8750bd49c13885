#include "app/CommandLine.h"

#include "platform/core/RuntimeEnv.h"

#include <QCoreApplication>

QString CommandLine::usage()
{
    return QStringLiteral(
        "Usage: cabin-media-server [OPTIONS]\n"
        "The media server of the centre display: plays what its clients load over D-Bus.\n"
        "\n"
        "  --config FILE      read settings from FILE (INI) instead of\n"
        "                     $XDG_CONFIG_HOME/KelvraMotors/CabinMediaServer2.conf\n"
        "  --set KEY=VALUE    override one setting (repeatable; see --list-config)\n"
        "  --list-config      print every setting: key, type, default, current value; the key\n"
        "                     mediaserver/stream_cache_db_file is listed twice because it names\n"
        "                     both the stream cache's database and, through that file's folder\n"
        "                     plus streams/, where its files are kept\n"
        "  --verbose          with --list-config: also what each setting governs, its unit and\n"
        "                     its valid range\n"
        "  --version          print the version\n"
        "  --help             print this help\n"
        "\n"
        "Settings take true/false, yes/no, on/off or 1/0 for a bool; a value outside its range is\n"
        "refused. SIGHUP is logged and ignored; SIGTERM and SIGINT end the server.\n"
        "\n"
        "Exit status: 0 normal end (SIGTERM or SIGINT), 1 could not start, 2 bad command line,\n"
        "setting or settings file.\n");
}

QString CommandLine::version()
{
    return QStringLiteral("cabin-media-server " CABIN_VERSION);
}

// --config and --set take a value, either as the next argument or after "=".
bool CommandLine::isPlatformOption(const QString& arg, int* index, int argc) const
{
    for (const char* option : {"--config", "--set"}) {
        const QString name = QString::fromLatin1(option);
        if (arg.startsWith(name + QLatin1Char('=')))
            return true;
        if (arg == name) {
            if (*index + 1 < argc)
                ++*index;
            return true;
        }
    }
    return false;
}

CommandLine::Action CommandLine::parse(int argc, const char* const* argv)
{
    Action action = Run;
    for (int i = 1; i < argc; ++i) {
        const QString arg = QString::fromLocal8Bit(argv[i]);
        if (arg == QLatin1String("--help") || arg == QLatin1String("-h"))
            return Help;
        if (arg == QLatin1String("--version"))
            return Version;
        if (arg == QLatin1String("--list-config"))
            action = ListConfig;
        else if (arg == QLatin1String("--verbose"))
            mVerbose = true;
        else if (!isPlatformOption(arg, &i, argc)) {
            mError = QStringLiteral("unknown argument \"%1\" (see --help)").arg(arg);
            return Invalid;
        }
    }
    if (mVerbose && action != ListConfig) {
        mError = QStringLiteral("--verbose goes with --list-config");
        return Invalid;
    }
    RuntimeEnv::Args args;
    if (!RuntimeEnv::parseArgs(argc, argv, &args, &mError))
        return Invalid;
    return action;
}
