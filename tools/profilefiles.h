// Writes a profile into an installation's settings, and reads what stands there.
#pragma once

#include "tools/linkprofile.h"

#include <QString>

namespace tune {

// Whether directory is the root of an installation; else what is missing, for the user.
QString installationError(const QString& directory);

// Puts the profile's values into settings/settings.ini and settings/channelCom.conf of the
// installation; all other content of both stays. Files are replaced as a whole, and
// nothing is changed when one of them cannot be understood. An error text, empty on
// success.
[[nodiscard]] QString writeProfile(const QString& installation, const LinkProfile& profile);

} // namespace tune
