#include "rig/server/testedserver.h"

#include <QDataStream>

QByteArray channelBytes(const QList<TestPort>& ports, int packetSize)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << qint32(3) << qint32(ports.size()) << qint32(packetSize);
    for (const TestPort& port : ports) {
        stream << port.enabled << port.name << port.initString << qint32(port.baudRate) << qint32(port.flowControl)
               << qint32(port.dataBits) << qint32(port.parity) << qint32(port.stopBits);
    }
    return bytes;
}

QByteArray abonentBytes(const QString& number, const QStringList& allowedPorts)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << qint32(4) << number << qint32(allowedPorts.size());
    for (const QString& port : allowedPorts)
        stream << port;
    return bytes;
}
