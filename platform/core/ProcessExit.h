#pragma once

// Ends the process once its own shutdown has run (finalisers done, log flushed), without
// running static destructors. Those would stop QtDBus's thread while it may still deliver a
// late bus message into Qt's metatype tables, already torn down: a spurious warning, or an
// abort under QT_FATAL_WARNINGS. Standard streams are flushed first; sanitizer builds still
// check for leaks.
[[noreturn]] void exitAfterShutdown(int status);
