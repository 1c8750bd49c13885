#pragma once

// Makes sure descriptors 0, 1 and 2 are open before anything else opens a file. A process
// started with them closed (by a careless launcher or a daemonising parent) would otherwise
// hand out 2 as the next file or socket, and the log would then be written into a cache file
// or onto the bus connection.
//
// Thread: call first thing in main(), before any other thread exists. Failure: a descriptor
// that cannot be pointed at /dev/null stays closed; nothing more can be done that early.
void openMissingStandardStreams();
