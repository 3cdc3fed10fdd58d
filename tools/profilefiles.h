// Writes a profile into the settings of an installation, and reads the present one.
#pragma once

#include "tools/linkprofile.h"

#include <QString>

namespace tune {

// Empty if directory is the root of an installation; otherwise what is missing, for the user.
QString installationError(const QString& directory);

// Whether the link of the installation measures the line itself. Then of a profile only the packet
// size is of use: it is the largest that the link chooses.
bool isAdaptive(const QString& installation);

// Puts the profile's values into settings/settings.ini and settings/channelCom.conf of the
// installation; if its link is adaptive, the packet size alone. All other content of both stays.
// Files are replaced as a whole, and nothing is changed when one of them cannot be understood. An
// error text, empty on success.
[[nodiscard]] QString writeProfile(const QString& installation, const LinkProfile& profile);

} // namespace tune
