// Files that must outlive a crash and a power failure.
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QString>

namespace host {

// Each answers an error text for the user, empty on success.

// The content of an open file is on the disk when it returns.
[[nodiscard]] QString syncFile(QFile* file);

// The names in the directory are on the disk when it returns (as well as its file system can).
void syncDirectory(const QDir& dir);

// Renames a directory or file within one file system; fails when a directory with content
// stands under the new name.
[[nodiscard]] QString renamePath(const QString& from, const QString& to);

// Removes a directory with all that is in it; one that does not exist is removed.
[[nodiscard]] QString removeDirectory(const QString& path);

// Safe saving of a record as JSON, and its reading; an unreadable or damaged one reads as empty.
[[nodiscard]] QString saveRecord(const QString& path, const QJsonObject& record);
[[nodiscard]] QJsonObject loadRecord(const QString& path);

// Global's names for messages and tasks, for any thread.
[[nodiscard]] QString nextMessageName(const QDir& dir);
[[nodiscard]] QString nextTaskName(const QDir& dir);

// Identifiers of messages as they stand in records.
[[nodiscard]] QString idText(quint64 id);
[[nodiscard]] quint64 idFromText(const QString& text); // 0 when it is none

} // namespace host
