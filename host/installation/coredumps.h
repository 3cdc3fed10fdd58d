// What a crash leaves behind.
#pragma once

#include <QString>

namespace host {

// From now on this process leaves no core dump, neither as a file nor to the system's collector,
// and no other process of the same user may read its memory. Secret keys are never part of a core
// dump, but messages, and copies of a key that are in use at the moment, would be. Returns an error
// text, empty on success.
[[nodiscard]] QString forbidCoreDumps();

} // namespace host
