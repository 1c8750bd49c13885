#pragma once

#include <QString>

// A small tmpfs mounted for one test, when this machine lets the test mount one (it needs
// CAP_SYS_ADMIN): a disk that fills up, or that turns read-only, without touching the real one.
//
// Thread: the test's. Owns the mount; unmounts it when destroyed.
class SmallFileSystem
{
public:
    SmallFileSystem(const QString& where, const char* size = "64k");
    ~SmallFileSystem();
    SmallFileSystem(const SmallFileSystem&) = delete;
    SmallFileSystem& operator=(const SmallFileSystem&) = delete;

    bool mounted() const { return mMounted; }
    // Remounts it read-only, keeping its files; false when the kernel refuses.
    bool makeReadOnly();

private:
    QString mPath;
    bool mMounted = false;
};
