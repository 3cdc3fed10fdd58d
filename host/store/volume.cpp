#include "host/store/volume.h"

#include <QFile>

#include <sys/statvfs.h>

namespace host {

VolumeRoom volumeRoom(const QString& directory)
{
    VolumeRoom room;
    struct statvfs answer = {};
    if (::statvfs(QFile::encodeName(directory).constData(), &answer) != 0)
        return room;
    room.freeBytes = static_cast<qint64>(answer.f_bavail) * static_cast<qint64>(answer.f_frsize);
    if (answer.f_files != 0)
        room.freeInodes = static_cast<qint64>(answer.f_favail);
    return room;
}

} // namespace host
