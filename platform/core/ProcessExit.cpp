#include "platform/core/ProcessExit.h"

#include "platform/log/Logger.h"

#include <cstdio>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

void exitAfterShutdown(int status)
{
    Logger::flush();
    std::fflush(nullptr);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_do_leak_check();
#endif
    ::_exit(status);
}
