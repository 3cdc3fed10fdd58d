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

// Safe saving by the common library, whose rules other programs know, too.
[[nodiscard]] QString saveFile(const QString& path, const QByteArray& bytes);

// Replaces a file in one step, so that readers need no lock: at any moment the name leads to the whole
// old or the whole new content. Programs that write must take turns, with a lock of their own. A link
// under that name is replaced, never followed.
[[nodiscard]] QString replaceFile(const QString& path, const QByteArray& bytes);

// The answer of safe saving in words that a user understands: it reports a full disk as a time-out.
[[nodiscard]] QString savingFailed(const QString& path, const QString& error);

// Saves a record as JSON, safely, and reads one. A record that cannot be read, is damaged or is a link
// counts as empty.
[[nodiscard]] QString saveRecord(const QString& path, const QJsonObject& record);
[[nodiscard]] QJsonObject loadRecord(const QString& path);

// Names for messages and tasks, as Global makes them, but for any thread.
[[nodiscard]] QString nextMessageName(const QDir& dir);
[[nodiscard]] QString nextTaskName(const QDir& dir);

// The identifier of a message as records have it.
[[nodiscard]] QString idText(quint64 id);
[[nodiscard]] quint64 idFromText(const QString& text); // 0 when it is none

} // namespace host
