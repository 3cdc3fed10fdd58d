// What the program makes in the file system: only where nobody else can put something in its
// way, and never through a link.
#pragma once

#include <QByteArray>
#include <QString>

namespace sim {

// The directory of the links to the ports, held by one process at a time.
class LinkDirectory
{
public:
    LinkDirectory() = default;
    ~LinkDirectory(); // lets go of it; the directory stays
    LinkDirectory(const LinkDirectory&) = delete;
    LinkDirectory& operator=(const LinkDirectory&) = delete;

    // Makes it, with the parents that are missing, for this user alone. False: it is a link,
    // belongs to somebody else, others may write in it, or another process holds it; *error
    // says so and what to do.
    bool take(const QString& path, QString* error);

private:
    int m_fd = -1;
};

// Replaces a regular file, or makes it. False: it is something else or cannot be written;
// *error says so.
bool replaceFile(const QString& path, const QByteArray& text, QString* error);

} // namespace sim
