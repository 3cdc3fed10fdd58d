#include "com/link/currentcomsettings.h"

ChannelComSettings gComSettings;

// The exported record must keep a plain int, so both threads use atomic access to it.
int currentPacketSize()
{
    return __atomic_load_n(&gComSettings.packetSize, __ATOMIC_RELAXED);
}

void setCurrentComSettings(const ChannelComSettings& settings)
{
    gComSettings.ports = settings.ports;
    __atomic_store_n(&gComSettings.packetSize, settings.packetSize, __ATOMIC_RELAXED);
}
