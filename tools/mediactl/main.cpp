// cabin-mediactl: the command-line client of cabin-media-server (see MediaCtl).

#include "platform/core/Finalizer.h"
#include "platform/core/ProcessExit.h"
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
    Finalizer::instance()->finalize();
    exitAfterShutdown(status);
}
