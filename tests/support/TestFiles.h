#pragma once

#include <QByteArray>
#include <QString>

// The whole content of the file at `path`; empty when it cannot be read.
// Thread: any.
QByteArray fileContents(const QString& path);
