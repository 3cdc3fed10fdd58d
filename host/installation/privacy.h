// Who may change an installation. Settings and data are in directories that others cannot enter, so
// that the modes of single files do not matter, and a host runs nothing that others could have
// replaced.
#pragma once

#include <QString>
#include <QStringList>

namespace host {

// Operations return an error text, empty on success. Call them before other threads are started.

// Each command calls it before it touches the installation. Makes settings/ and data/ if they are
// missing, for this user only, and settings.ini, which says the modes of everything made later. An
// installation that exists is not changed. From now on new files are as private as settings/ (by the
// process's umask).
[[nodiscard]] QString prepareInstallation();

// The same for a new installation; if a group is named, also for that group. If there is an
// installation already, nothing is changed and isNew becomes false.
[[nodiscard]] QString setUpInstallation(const QString& groupName, bool* isNew);

// Why a host should not run: what others can change in settings, data, program and plug-ins. Others
// means anybody but root, this user, and the group that the installation was set up for. Each text
// says what to do. Empty when all is well.
[[nodiscard]] QStringList installationTroubles();

// A path as one can type it in a command.
[[nodiscard]] QString shellWord(const QString& path);

} // namespace host
