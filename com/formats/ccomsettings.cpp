#include "com/formats/ccomsettings.h"

#include <QDataStream>

QByteArray ChannelComSettings::toByteArray() const
{
    QByteArray data;
    QDataStream stream(&data, QIODevice::WriteOnly);
    stream << formatVersion << ports.size() << packetSize;
    for (const ComPortSettings& port : ports)
        stream << port;
    return data;
}

RecordFault ChannelComSettings::read(const QByteArray& data)
{
    ports.clear();
    QDataStream stream(data);
    int version = 0;
    stream >> version;
    if (version != formatVersion)
        return RecordFault::otherVersion(version);
    int count = 0;
    stream >> count >> packetSize;
    // Truncated data still give as many ports as they announce: the missing values are false,
    // empty or zero.
    for (int i = 0; i < count; ++i) {
        if (stream.status() != QDataStream::Ok && ports.size() >= maxPortsOfDamagedData)
            break;
        ComPortSettings port;
        stream >> port;
        ports.append(port);
    }
    return stream.status() == QDataStream::Ok ? RecordFault() : RecordFault::damaged();
}

QString ChannelComSettings::fromByteArray(const QByteArray& data)
{
    return recordFaultText(read(data), formatVersion);
}
