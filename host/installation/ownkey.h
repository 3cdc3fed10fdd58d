// The key of this installation: where it is kept, and what its loss means.
#pragma once

#include "host/installation/identitykey.h"

#include <QString>

#include <memory>

namespace host {

// settings/identity.key
[[nodiscard]] QString ownKeyPath();

// The key; made at the first time. Where there was one and its file is gone nothing is made,
// unless replaceLost: the others know this installation by the old key and refuse a new one.
// Null, and *error for the user, when there is none to go on with. *notes: what should be told.
[[nodiscard]] std::shared_ptr<const KeyPair> openOwnKey(bool replaceLost, QStringList* notes, QString* error);

} // namespace host
