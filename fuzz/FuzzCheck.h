#pragma once

#include <cstdio>
#include <cstdlib>

// An invariant of a fuzz target: when it does not hold, says which and aborts, so that libFuzzer
// saves the input. Written to stdout because scripts/fuzz sends stderr, where the logger
// writes a line per input, to /dev/null.
inline void fuzzCheck(bool ok, const char* what)
{
    if (ok)
        return;
    std::fprintf(stdout, "fuzz check failed: %s\n", what);
    std::fflush(stdout);
    std::abort();
}
