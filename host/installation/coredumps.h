// What a crash leaves behind.
#pragma once

#include <QString>

namespace host {

// From now on this process leaves no core dump, neither as a file nor to the system's collector,
// and no other process of the same user may read its memory. Secret keys are kept out of core
// dumps in any case; messages, and what of a key is in use at the moment, are not. Answers an
// error text, empty on success.
[[nodiscard]] QString forbidCoreDumps();

} // namespace host
