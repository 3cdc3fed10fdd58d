// The settings that the channels of this process run with.
#pragma once

#include "com/formats/ccomsettings.h"

// Shared by all servers. The ports belong to the server's thread; the workers' threads read
// packetSize, by currentPacketSize(). The plug-in exports it under this name: if another
// program linked this source, its record would take the place of the plug-in's.
extern Q_DECL_EXPORT ChannelComSettings gComSettings;

// gComSettings.packetSize; any thread may call it while settings are loaded.
int currentPacketSize();

// Makes settings the current ones; for the server's thread.
void setCurrentComSettings(const ChannelComSettings& settings);
