// What the file system under a directory has left.
#pragma once

#include <QString>

namespace host {

struct VolumeRoom
{
    qint64 freeBytes = -1; // to this user; -1: not known
    qint64 freeInodes = -1; // -1: not known, or the file system does not count them
};

// Cheap: asked again and again while a file is written.
[[nodiscard]] VolumeRoom volumeRoom(const QString& directory);

} // namespace host
