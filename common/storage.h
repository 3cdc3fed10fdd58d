// The volume of a path that need not exist yet.
#pragma once

#include <QString>

struct VolumeSpace
{
    qint64 totalBytes = -1; // -1: not known
    qint64 freeBytes = -1; // for the user; in all, if the system does not tell the two apart
};

// The volume of the nearest existing ancestor of path.
VolumeSpace volumeSpace(const QString& path);
