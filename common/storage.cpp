#include "common/storage.h"

#include <QDir>
#include <QFileInfo>

QStorageInfo storageOf(const QString& path)
{
    QString current = QDir::cleanPath(QFileInfo(path).absoluteFilePath());
    QStorageInfo storage(current);
    while (!storage.isValid()) {
        // By the path's text: a directory that is missing cannot be left upwards.
        const QString parent = QFileInfo(current).path();
        if (parent == current)
            break;
        current = parent;
        storage.setPath(current);
    }
    return storage;
}

qint64 freeBytes(const QStorageInfo& storage)
{
    const qint64 available = storage.bytesAvailable();
    return available != 0 ? available : storage.bytesFree();
}
