#include "platform/core/SimpleTThread.h"

#include "platform/core/Finalizer.h"
#include "platform/log/Logger.h"

#include <QPointer>

SimpleTThread::SimpleTThread(const QString& name, bool stopAtShutdown, QObject* parent)
    : QThread(parent)
{
    setObjectName(name);
    mStopRequests.moveToThread(this);
    if (stopAtShutdown) {
        QPointer<SimpleTThread> self(this);
        Finalizer::instance()->add(QStringLiteral("stop thread ") + name, [self] {
            if (self)
                self->stop();
        });
    }
}

SimpleTThread::~SimpleTThread()
{
    stop();
}

void SimpleTThread::stop()
{
    if (isRunning())
        QMetaObject::invokeMethod(&mStopRequests, [this] { quit(); }, Qt::QueuedConnection);
    wait();
}

void SimpleTThread::run()
{
    Logger::setCurrentThreadName(objectName());
    exec();
}
