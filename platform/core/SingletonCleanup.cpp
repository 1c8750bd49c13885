#include "platform/core/SingletonCleanup.h"

#include "platform/core/Finalizer.h"
#include "utils/SingletonRegistry.h"

namespace {
const SingletonCleanup sRegisterCleanup;
}

SingletonCleanup::SingletonCleanup()
{
    Finalizer::instance()->add(QStringLiteral("SingletonCleanup"), &SingletonCleanup::run);
}

void SingletonCleanup::run()
{
    SingletonRegistry::destroyAll();
}
