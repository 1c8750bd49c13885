#pragma once

#include <QString>

// The process's own command-line options (--help, --version, --list-config [--verbose]) and the check of
// the platform options (--config FILE, --set KEY=VALUE) before anything starts, so a mistyped
// key or value stops the process with one clear line instead of running with a default.
//
// Thread: main thread, before start-up.
class CommandLine
{
public:
    enum Action { Run, Help, Version, ListConfig, Invalid };

    // Decides what the process should do; for Invalid, error() says why in one line.
    Action parse(int argc, const char* const* argv);
    QString error() const { return mError; }
    // --verbose was given (with --list-config).
    bool verbose() const { return mVerbose; }

    static QString usage();
    static QString version();

private:
    bool isPlatformOption(const QString& arg, int* index, int argc) const;

    QString mError;
    bool mVerbose = false;
};
