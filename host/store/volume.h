// How much room is left on the file system of a directory.
#pragma once

#include <QString>

namespace host {

struct VolumeRoom
{
    qint64 freeBytes = -1; // to this user; -1: not known
    qint64 freeInodes = -1; // -1: not known, or the file system does not count them
};

// Fast: it is called often while a file is written.
[[nodiscard]] VolumeRoom volumeRoom(const QString& directory);

} // namespace host
