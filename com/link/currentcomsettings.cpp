#include "com/link/currentcomsettings.h"

ChannelComSettings gComSettings;

// An int stays an int in the exported record, so the two threads meet by atomic access.
int currentPacketSize()
{
    return __atomic_load_n(&gComSettings.packetSize, __ATOMIC_RELAXED);
}

void setCurrentComSettings(const ChannelComSettings& settings)
{
    gComSettings.ports = settings.ports;
    __atomic_store_n(&gComSettings.packetSize, settings.packetSize, __ATOMIC_RELAXED);
}
