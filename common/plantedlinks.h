// Opening files, and changing their permissions, in directories that other users may write to:
// a link, a pipe or a second name planted there must not lead to a file of the user that this
// process runs as, nor make it wait for ever.
#pragma once

#include <QByteArray>
#include <QFileDevice>
#include <QString>

// All of these set errno as open() does when they answer -1, and may be called from any thread.

// Opens what stands under path for appending, or makes it. A link is not followed (ELOOP), but for
// one to a character device, as /dev/null, that this user or the superuser has made. Of a pipe that
// has no reader only such a one is waited for (else ENXIO).
int openForAppending(const QByteArray& path);

// The same for files that no other program of another user appends to: a plain file has to be this
// user's alone, without a second name elsewhere (EMLINK, or EPERM where it is another user's).
int openOwnForAppending(const QByteArray& path);

// As the first for what exists, at the price of one call: refuses every link, and every pipe without
// a reader.
int openExistingForAppending(const QByteArray& path);

// Opens the empty file path for writing. A plain file of this user alone is emptied; whatever else
// is in its place, but a directory, is removed and a new file made, so that nobody else can reach
// into it. A link to a character device is treated as above.
int openEmpty(const QByteArray& path);

// Makes path, an empty file that did not exist; what was there is removed, but for a directory.
int openNew(const QByteArray& path);

// As QFile::setPermissions(), but refuses links. On failure *error is the system's text.
bool changePermissions(const QString& path, QFileDevice::Permissions permissions, QString* error);

// Whether path is a link that neither this user nor the superuser has made.
bool isForeignLink(const QByteArray& path);
