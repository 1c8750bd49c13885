// cabin-mediactl: the command-line client of cabin-media-server (see MediaCtl).

#include "platform/core/Finalizer.h"
#include "tools/mediactl/MediaCtl.h"

#include <QCoreApplication>

#include <cstdio>
#include <unistd.h>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/lsan_interface.h>
#endif

int main(int argc, char** argv)
{
    QCoreApplication app(argc, argv);
    int status = 0;
    {
        MediaCtl ctl;
        status = ctl.run(app.arguments().mid(1));
    }
    // The bus connection closes while the application object still exists: QtDBus's own thread
    // must not deliver into a half-destroyed process.
    Finalizer::instance()->finalize();
    // Static destruction would stop QtDBus's own thread while it may still be delivering a
    // late bus message into metatype tables already torn down (a warning on stderr, or an abort
    // with QT_FATAL_WARNINGS). The answer is printed and the bus connection closed, so the
    // client leaves here; leaks are still checked in sanitizer builds.
    std::fflush(nullptr);
#if defined(__SANITIZE_ADDRESS__)
    __lsan_do_leak_check();
#endif
    ::_exit(status);
}
