#include "rig/runs/channelsettings.h"

#include <sstream>

std::string rig::settingsText(const ChannelSettings& settings)
{
    std::ostringstream text;
    text << "[Details]\n"
         << "transportComMaxBytesToWrite=" << settings.maxBytesToWrite << "\n"
         << "transportComMaxBytesInQueue=" << settings.maxBytesInQueue << "\n"
         << "transportComResendInterval=" << settings.resendIntervalMs << "\n"
         << "transportComConfirmationInterval=" << settings.confirmationIntervalMs << "\n";
    return text.str();
}
