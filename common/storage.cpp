#include "common/storage.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QStorageInfo>

#include <sys/statvfs.h>

namespace {

VolumeSpace space(qint64 totalBytes, qint64 availableBytes, qint64 freeBytes)
{
    return {totalBytes, availableBytes != 0 ? availableBytes : freeBytes};
}

// Qt finds a volume by its entry in the mount table. After a change of root there may be no entry
// even for "/", but the file system can still be asked.
VolumeSpace askFileSystem(const QString& path)
{
    struct statvfs answer
    {
    };
    if (::statvfs(QFile::encodeName(path).constData(), &answer) != 0)
        return {};
    const qint64 unit = static_cast<qint64>(answer.f_frsize);
    return space(unit * static_cast<qint64>(answer.f_blocks), unit * static_cast<qint64>(answer.f_bavail),
                 unit * static_cast<qint64>(answer.f_bfree));
}

} // namespace

VolumeSpace volumeSpace(const QString& path)
{
    QString current = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    QString existing;
    for (;;) {
        const QStorageInfo storage(current);
        if (storage.isValid())
            return space(storage.bytesTotal(), storage.bytesAvailable(), storage.bytesFree());
        if (existing.isEmpty() && QFile::exists(current))
            existing = current;
        // From the path's text: QDir::cdUp() fails if the directory is missing.
        const QString parent = QFileInfo(current).path();
        if (parent == current)
            return askFileSystem(existing);
        current = parent;
    }
}
