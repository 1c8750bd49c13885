#include "tests/support/SmallFileSystem.h"

#include <QDir>
#include <QFile>

#include <sys/mount.h>

SmallFileSystem::SmallFileSystem(const QString& where, const char* size)
    : mPath(where)
{
    QDir().mkpath(where);
    const QByteArray options = QByteArray("size=") + size;
    mMounted = ::mount("tmpfs", QFile::encodeName(where).constData(), "tmpfs", 0, options.constData()) == 0;
}

SmallFileSystem::~SmallFileSystem()
{
    if (mMounted)
        ::umount2(QFile::encodeName(mPath).constData(), MNT_DETACH);
}

bool SmallFileSystem::makeReadOnly()
{
    return mMounted
        && ::mount("tmpfs", QFile::encodeName(mPath).constData(), "tmpfs", MS_REMOUNT | MS_RDONLY, nullptr) == 0;
}
