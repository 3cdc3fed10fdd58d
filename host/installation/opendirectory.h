// A directory of ours, held open. What stands in it is reached from there, and no link is
// followed: one that somebody planted who may write here leads nowhere.
#pragma once

#include <QFile>
#include <QString>

namespace host {

// Operations answer an error text, empty on success. Names are single steps of a path.
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

    // For the directory's owner and group alone, as far as the process's mask lets.
    [[nodiscard]] QString makeDirectory(const QString& name) const;

    // A new file, for writing: whatever stands under the name is in the way.
    [[nodiscard]] QString createFile(const QString& name, QFile* file) const;

    // A regular file that exists. For writing it must have no second name: that may be
    // somebody else's file.
    [[nodiscard]] QString openForReading(const QString& name, QFile* file) const;
    [[nodiscard]] QString openForWriting(const QString& name, QFile* file) const;

    // With all that is in it; a link goes itself, not what it leads to. A name under which
    // nothing stands is removed.
    [[nodiscard]] QString removeTree(const QString& name) const;

    // Fails when a directory with content or a file stands under the new name.
    [[nodiscard]] QString moveDirectory(const QString& name, const OpenDirectory& to, const QString& newName) const;

    // The names in it are on the disk when it returns, as well as its file system can.
    [[nodiscard]] QString sync() const;

private:
    OpenDirectory(int descriptor, const QString& path) : m_descriptor(descriptor), m_path(path) {}
    [[nodiscard]] QString open(const QString& name, int flags, QFile* file) const;

    int m_descriptor = -1;
    QString m_path; // for error texts
};

} // namespace host
