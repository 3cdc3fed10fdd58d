// Opening files, and changing their permissions, in directories that other users may write to:
// a link, a pipe or a second name that somebody put there must not lead to a file of this process's
// own user, and must not make it wait for ever.
#pragma once

#include <QByteArray>
#include <QFileDevice>
#include <QString>

// If they return -1, all of these set errno as open() does. Any thread may call them.

// Opens path for appending, or makes it. A link is not followed (ELOOP), except a link to a
// character device, such as /dev/null, that this user or the superuser has made. A pipe without a
// reader is waited for only behind such a link (otherwise ENXIO).
int openForAppending(const QByteArray& path);

// The same for files that only this user appends to: a plain file must belong to this user (EPERM)
// and must not have a second name elsewhere (EMLINK).
int openOwnForAppending(const QByteArray& path);

// Like openForAppending for a file that exists, with a single system call: refuses every link, and
// every pipe without a reader.
int openExistingForAppending(const QByteArray& path);

// Opens the empty file path for writing. A plain file that belongs only to this user is emptied.
// Anything else in its place, except a directory, is removed and a new file is made, so that nobody
// else has access to it. A link to a character device is treated as above.
int openEmpty(const QByteArray& path);

// Makes path as a new, empty file; anything that was there is removed, except a directory.
int openNew(const QByteArray& path);

// As QFile::setPermissions(), but refuses links. On failure *error is the system's text.
bool changePermissions(const QString& path, QFileDevice::Permissions permissions, QString* error);

// Whether path is a link that neither this user nor the superuser has made.
bool isForeignLink(const QByteArray& path);
