#pragma once

// How the C library's allocator hands memory out, set once for a process that runs for weeks
// and starts and ends threads all the time (every pipeline has streaming threads of its own):
// - a few malloc arenas instead of eight per core: each arena keeps the pages its threads
//   last used, so many arenas hold many high-water marks and the footprint creeps up item
//   after item although the heap in use stays flat;
// - a fixed threshold above which a block is mapped on its own: with glibc's default the
//   threshold rises to the largest block ever freed, and buffers of a megabyte then come from
//   the arenas and fragment them, where mapped they go back to the system whole when freed.
// A MALLOC_ARENA_MAX or MALLOC_MMAP_THRESHOLD_ in the environment wins, for measurements.
//
// Thread: call from main() before any other thread exists. Failure: a setting the C library
// refuses is left at its default (the process runs as before, with a larger footprint).
void tuneHeapForLongRuns();
