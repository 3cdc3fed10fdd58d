// Who may change an installation: settings and data lie in directories that the modes of the
// files in them need not protect, and no host runs what others could have replaced.
#pragma once

#include <QString>
#include <QStringList>

namespace host {

// Operations answer an error text, empty on success. One thread, before others are started.

// For each command, before it touches the installation. Makes settings/ and data/ where they are
// missing, for this user alone, and settings.ini, with the modes of all that is made later.
// An installation that exists is left as it is. New files are from now on as private as
// settings/ is (the process's umask).
[[nodiscard]] QString prepareInstallation();

// The same for a new installation, which is also for the group where one is named; isNew
// becomes false, and nothing is changed, where there is one already.
[[nodiscard]] QString setUpInstallation(const QString& groupName, bool* isNew);

// Why a host should not run: what somebody other than root, this user, and the group that the
// installation was set up for can change, in settings, data, program and plug-ins. Each says
// what to do. Empty when there is nothing.
[[nodiscard]] QStringList installationTroubles();

// A path as it can be typed in a command.
[[nodiscard]] QString shellWord(const QString& path);

} // namespace host
