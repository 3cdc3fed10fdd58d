// Channels that measure the line.
#include "fuzz/channels.h"

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::tryChannels(true, data, size);
    return 0;
}
