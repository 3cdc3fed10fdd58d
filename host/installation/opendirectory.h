// A directory of ours that is held open. Its entries are opened relative to it, and links are not
// followed, so that a link that somebody planted there has no effect.
#pragma once

#include <QFile>
#include <QString>

namespace host {

// Operations return an error text, empty on success. Names are names of entries, not paths.
class OpenDirectory
{
public:
    OpenDirectory() = default; // not open
    OpenDirectory(OpenDirectory&& other) noexcept;
    OpenDirectory& operator=(OpenDirectory&& other) noexcept;
    ~OpenDirectory();

    // Not open with *error set when path is no directory or its last step is a link.
    [[nodiscard]] static OpenDirectory at(const QString& path, QString* error);
    [[nodiscard]] OpenDirectory below(const QString& name, QString* error) const;
    [[nodiscard]] bool isOpen() const { return m_descriptor >= 0; }
    [[nodiscard]] QString pathOf(const QString& name) const;

    // For the directory's owner and group only, and less if the process's umask says so.
    [[nodiscard]] QString makeDirectory(const QString& name) const;

    // A new file, for writing. Fails when anything exists under the name.
    [[nodiscard]] QString createFile(const QString& name, QFile* file) const;

    // A regular file that exists. For writing it must not have a second name, which could be somebody
    // else's file.
    [[nodiscard]] QString openForReading(const QString& name, QFile* file) const;
    [[nodiscard]] QString openForWriting(const QString& name, QFile* file) const;

    // Removes the entry with all that is in it. Links are removed, not what they lead to. It is no
    // error if there is no such entry.
    [[nodiscard]] QString removeTree(const QString& name) const;

    // Fails when a file, or a directory that is not empty, has the new name.
    [[nodiscard]] QString moveDirectory(const QString& name, const OpenDirectory& to, const QString& newName) const;

    // Syncs the names in it to the disk, as well as its file system can.
    [[nodiscard]] QString sync() const;

private:
    OpenDirectory(int descriptor, const QString& path) : m_descriptor(descriptor), m_path(path) {}
    [[nodiscard]] QString open(const QString& name, int flags, QFile* file) const;

    int m_descriptor = -1;
    QString m_path; // for error texts
};

} // namespace host
