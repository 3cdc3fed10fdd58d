// The volume of a path that need not exist yet.
#pragma once

#include <QStorageInfo>

// The volume of the nearest existing ancestor of path.
QStorageInfo storageOf(const QString& path);

// Bytes free to the user, or in all where the system does not tell the two apart.
qint64 freeBytes(const QStorageInfo& storage);
