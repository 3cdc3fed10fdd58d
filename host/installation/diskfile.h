// Files that must outlive a crash and a power failure.
#pragma once

#include <QByteArray>
#include <QDir>
#include <QFile>
#include <QJsonObject>
#include <QString>

namespace host {

// Each answers an error text for the user, empty on success.

// The content of an open file is on the disk when it returns. The text does not name the file.
[[nodiscard]] QString syncFile(QFile* file);

// The names in the directory are on the disk when it returns (as well as its file system can).
void syncDirectory(const QDir& dir);

// Renames a directory or file within one file system; fails when a directory with content
// stands under the new name.
[[nodiscard]] QString renamePath(const QString& from, const QString& to);

// Removes a directory with all that is in it, following no link; one that does not exist is
// removed.
[[nodiscard]] QString removeDirectory(const QString& path);

// Safe saving, which also others read and recover by its rules.
[[nodiscard]] QString saveFile(const QString& path, const QByteArray& bytes);

// Replaces a file in one step, so that readers need no lock: its name leads to the whole old or
// the whole new content at any moment. One program at a time (under a lock of theirs). A link
// in the way is replaced, never followed.
[[nodiscard]] QString replaceFile(const QString& path, const QByteArray& bytes);

// What safe saving answered, as somebody can understand it: that the disk is full comes from
// there as a matter of time.
[[nodiscard]] QString savingFailed(const QString& path, const QString& error);

// Safe saving of a record as JSON, and its reading; an unreadable or damaged one and one that
// is a link read as empty.
[[nodiscard]] QString saveRecord(const QString& path, const QJsonObject& record);
[[nodiscard]] QJsonObject loadRecord(const QString& path);

// Global's names for messages and tasks, for any thread.
[[nodiscard]] QString nextMessageName(const QDir& dir);
[[nodiscard]] QString nextTaskName(const QDir& dir);

// Identifiers of messages as they stand in records.
[[nodiscard]] QString idText(quint64 id);
[[nodiscard]] quint64 idFromText(const QString& text); // 0 when it is none

} // namespace host
