// cabin-mediactl: the command-line client of cabin-media-server (see MediaCtl).

#include "platform/core/Finalizer.h"
#include "tools/mediactl/MediaCtl.h"

#include <QCoreApplication>

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
    return status;
}
