#include "com/formats/ccomsettings.h"

#include <QDataStream>

ChannelComSettings gComSettings;

QByteArray ChannelComSettings::toByteArray() const
{
    QByteArray data;
    QDataStream stream(&data, QIODevice::WriteOnly);
    stream << formatVersion << ports.size() << packetSize;
    for (const ComPortSettings& port : ports)
        stream << port;
    return data;
}

QString ChannelComSettings::fromByteArray(const QByteArray& data)
{
    ports.clear();
    QDataStream stream(data);
    int version = 0;
    stream >> version;
    if (version != formatVersion)
        return settingsVersionError(version, formatVersion);
    int count = 0;
    stream >> count >> packetSize;
    // Truncated data still give as many ports as they announce: what was cut off is
    // false, empty or zero.
    for (int i = 0; i < count; ++i) {
        if (stream.status() != QDataStream::Ok && ports.size() >= maxPortsOfDamagedData)
            break;
        ComPortSettings port;
        stream >> port;
        ports.append(port);
    }
    return stream.status() == QDataStream::Ok ? QString() : settingsDamagedError();
}

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
