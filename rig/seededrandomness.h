// Random bytes of the cryptography that are the same each time: for runs that must go the
// same way again. Never in a program that keeps a secret.
#pragma once

#include <cstdint>

namespace rig {

// From here on all random bytes of the process follow from the seed. The first call comes
// before anything of the cryptography is used.
void seedRandomness(std::uint64_t seed);

} // namespace rig
