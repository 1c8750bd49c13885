#pragma once

#include <QString>

#include <cstdio>

// How the command-line tools print what they watch: one line per change, flushed at once, so
// that a pipe (a demo filtering the output) sees each change when it happens.
namespace ToolOutput {

// Progress is printed once per this many percent, so a long download stays a few lines.
constexpr int kProgressStepPercent = 10;

inline void printLine(const QString& text)
{
    std::printf("%s\n", qPrintable(text));
    std::fflush(stdout);
}

} // namespace ToolOutput
