#include "platform/core/SignalHandlers.h"

#include "platform/core/SignalNotifier.h"
#include "platform/log/Logger.h"

#include <QCoreApplication>

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <fcntl.h>
#include <unistd.h>

namespace {

int sQuitPipe[2] = {-1, -1};

void onQuitSignal(int signalNumber)
{
    const int savedErrno = errno;
    const unsigned char byte = static_cast<unsigned char>(signalNumber);
    ssize_t ignored = ::write(sQuitPipe[1], &byte, 1);
    (void)ignored;
    errno = savedErrno;
}

void writeText(const char* text)
{
    ssize_t ignored = ::write(STDERR_FILENO, text, std::strlen(text));
    (void)ignored;
}

// Only async-signal-safe calls here: the process state is unknown.
void onFatalSignal(int signalNumber)
{
    writeText("ERROR fatal signal ");
    writeText(sigabbrev_np(signalNumber) ? sigabbrev_np(signalNumber) : "?");
    writeText(", backtrace:\n");
    void* frames[64];
    const int count = ::backtrace(frames, 64);
    ::backtrace_symbols_fd(frames, count, STDERR_FILENO);
    // SA_RESETHAND restored the default action: re-raising ends the process with this signal.
    ::raise(signalNumber);
}

void installHandler(int signalNumber, void (*handler)(int), int flags)
{
    struct sigaction action;
    std::memset(&action, 0, sizeof(action));
    action.sa_handler = handler;
    action.sa_flags = flags;
    sigemptyset(&action.sa_mask);
    ::sigaction(signalNumber, &action, nullptr);
}

// A stack overflow leaves no stack to report it on.
void installAlternateStack()
{
    static char stackMemory[64 * 1024];
    stack_t stack;
    stack.ss_sp = stackMemory;
    stack.ss_size = sizeof(stackMemory);
    stack.ss_flags = 0;
    ::sigaltstack(&stack, nullptr);
}

bool sanitizerOwnsFaults()
{
#if defined(__SANITIZE_ADDRESS__)
    return true;
#else
    return false;
#endif
}

void installFatalHandlers()
{
    // Loading the unwinder inside a crashed process can fail; touch it once while healthy.
    void* warmUp[1];
    ::backtrace(warmUp, 1);
    installAlternateStack();
    for (int signalNumber : {SIGSEGV, SIGABRT, SIGBUS, SIGFPE})
        if (!sanitizerOwnsFaults() || signalNumber == SIGABRT)
            installHandler(signalNumber, onFatalSignal, SA_RESETHAND | SA_ONSTACK);
}

bool installQuitHandlers()
{
    if (!QCoreApplication::instance()) {
        Logger::logAssert("QCoreApplication::instance()", QStringLiteral("registerSignalHandlers(): no application object, SIGTERM keeps its default action"), __FILE__, __LINE__);
        return false;
    }
    if (sQuitPipe[0] < 0 && ::pipe2(sQuitPipe, O_CLOEXEC | O_NONBLOCK) != 0) {
        Logger::write(Logger::Error, "registerSignalHandlers", QStringLiteral("cannot create the signal pipe: ") + QString::fromUtf8(std::strerror(errno)));
        return false;
    }
    new SignalNotifier(sQuitPipe[0], QCoreApplication::instance());
    installHandler(SIGTERM, onQuitSignal, SA_RESTART);
    installHandler(SIGINT, onQuitSignal, SA_RESTART);
    installHandler(SIGHUP, onQuitSignal, SA_RESTART);   // logged and ignored by the notifier
    return true;
}

} // namespace

void registerSignalHandlers()
{
    ::signal(SIGPIPE, SIG_IGN);
    installFatalHandlers();
    installQuitHandlers();
}
