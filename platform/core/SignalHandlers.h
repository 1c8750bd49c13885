#pragma once

// Process signal policy, installed once at start-up after the QCoreApplication exists:
// - SIGTERM and SIGINT end the event loop (through a self-pipe watched by the main thread), so
//   shutdown runs its normal order and the process exits 0;
// - SIGHUP is logged and ignored: a closing terminal must not end the service;
// - SIGPIPE is ignored: a peer that goes away is an error return, not a dead process;
// - SIGSEGV, SIGABRT, SIGBUS and SIGFPE write a backtrace to stderr with async-signal-safe
//   calls and then end the process with the same signal (so a core dump and the exit status
//   still tell what happened). Builds with AddressSanitizer keep the sanitizer's own report.
//
// Thread: call from the main thread; the handlers run on whichever thread takes the signal.
// Failure: without a QCoreApplication the quit signals keep their default action (logged).
void registerSignalHandlers();
