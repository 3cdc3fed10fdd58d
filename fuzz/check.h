// How a fuzz target says that something is wrong.
#pragma once

namespace fuzz {

// Prints what did not hold and aborts, which the fuzzer takes for a finding.
void require(bool holds, const char* what);

} // namespace fuzz
