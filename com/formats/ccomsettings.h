// The channel's own settings: its serial ports and the link's block size.
#pragma once

#include "com/formats/comsettings.h"
#include "com/formats/packetlayout.h"

#include <QByteArray>
#include <QList>
#include <QString>

struct ChannelComSettings
{
    static constexpr int formatVersion = 3;
    static constexpr int defaultPacketSize = 1024;
    // What an editor lets a user set; the channel accepts any.
    static constexpr int smallestPacketSize = packetlayout::smallestPacketSize;
    static constexpr int largestPacketSize = 16384;
    // Damaged data may announce any number of ports: after reading has failed, records are added
    // only up to this number.
    static constexpr int maxPortsOfDamagedData = 4096;

    QList<ComPortSettings> ports; // in the order of the file
    int packetSize = defaultPacketSize; // the link's largest block, in bytes

    QByteArray toByteArray() const;
    // First removes all ports, whatever the data contain; if the data are damaged, the ports read
    // so far stay.
    RecordFault read(const QByteArray& data);
    // The same, as an error text that is empty on success.
    QString fromByteArray(const QByteArray& data);
};
