// The channel's own settings: its serial ports and the link's block size.
#pragma once

#include "com/formats/comsettings.h"

#include <QByteArray>
#include <QList>
#include <QString>

struct ChannelComSettings
{
    static constexpr int formatVersion = 3;
    static constexpr int defaultPacketSize = 1024;
    // Damaged data may announce any number of ports: once reading has failed, no record
    // is added beyond this many.
    static constexpr int maxPortsOfDamagedData = 4096;

    QList<ComPortSettings> ports; // in the order of the file
    int packetSize = defaultPacketSize; // the link's largest block, in bytes

    QByteArray toByteArray() const;
    // Returns an error text, empty on success. The ports are emptied first, whatever the
    // data hold; of damaged data the ports read so far stay.
    QString fromByteArray(const QByteArray& data);
};

// The process's current settings, shared by all servers. The ports belong to the
// server's thread; the workers' threads read packetSize, by currentPacketSize().
extern Q_DECL_EXPORT ChannelComSettings gComSettings;

// gComSettings.packetSize; any thread may call it while settings are loaded.
int currentPacketSize();

// Makes settings the current ones; for the server's thread.
void setCurrentComSettings(const ChannelComSettings& settings);
