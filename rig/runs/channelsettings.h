// The settings of a link channel that a run chooses.
#pragma once

#include <string>

namespace rig {

struct ChannelSettings
{
    int packetSize = 1024;
    int maxBytesToWrite = 1024;
    int maxBytesInQueue = 10240;
    int resendIntervalMs = 2000;
    int confirmationIntervalMs = 500;
};

// All but the packet size as settings.ini has them: the channel reads them once in a process.
std::string settingsText(const ChannelSettings& settings);

} // namespace rig
