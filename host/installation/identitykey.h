// The key by which other installations know this one, in a file of its own.
#pragma once

#include "host/installation/keypair.h"
#include "host/installation/keytext.h"

#include <QString>

#include <memory>

namespace host {

// Reads the key in path; makes one, tells *created, and puts it there when there is none. The file
// is for its owner alone from its first moment; links are not followed. Null, and *error for the
// user, when the file is damaged, is not ours, or may be read by others.
[[nodiscard]] std::shared_ptr<const KeyPair> loadOrCreateIdentityKey(const QString& path, bool* created,
                                                                     QString* error);

} // namespace host
