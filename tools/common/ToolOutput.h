#pragma once

#include <QCommandLineParser>
#include <QString>

#include <cstdio>

// How the command-line tools print what they watch: one line per change, flushed at once, so
// that a pipe (a demo filtering the output) sees each change when it happens; and how they
// refuse a command line: one line on stderr, naming the tool, and exit status 2.
namespace ToolOutput {

// Progress is printed once per this many percent, so a long download stays a few lines.
constexpr int kProgressStepPercent = 10;

// The exit status of a command line a tool cannot use.
constexpr int kUsageError = 2;

inline void printLine(const QString& text)
{
    std::printf("%s\n", qPrintable(text));
    std::fflush(stdout);
}

// Prints "program: why" on stderr and answers kUsageError.
inline int refuse(const char* program, const QString& why)
{
    std::fprintf(stderr, "%s: %s\n", program, qPrintable(why));
    return kUsageError;
}

// Qt's reason for refusing a command line, without its closing period so a hint can follow.
inline QString parseError(const QCommandLineParser& parser)
{
    const QString text = parser.errorText();
    return text.endsWith(QLatin1Char('.')) ? text.chopped(1) : text;
}

} // namespace ToolOutput
