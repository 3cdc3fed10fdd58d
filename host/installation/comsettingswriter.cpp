#include "host/installation/comsettingswriter.h"

#include <QDataStream>
#include <QIODevice>

namespace host {

namespace {

// The shortest port record: a flag, two strings of no length, five numbers.
constexpr int minPortBytes = 1 + 2 * 4 + 5 * 4;

QString wrongVersion(qint32 found, qint32 known)
{
    return QStringLiteral("the format has version %1, this program knows version %2")
        .arg(QString::number(found), QString::number(known));
}

QString damaged()
{
    return QStringLiteral("the data is damaged");
}

} // namespace

QByteArray writeComSettings(const ComSettingsRecord& settings)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << comSettingsVersion << static_cast<qint32>(settings.ports.size()) << settings.packetSize;
    for (const ComPortRecord& port : settings.ports) {
        stream << port.enabled << port.portName << port.initString << port.baudRate << port.flowControl << port.dataBits
               << port.parity << port.stopBits;
    }
    return bytes;
}

QString readComSettings(const QByteArray& bytes, ComSettingsRecord* settings)
{
    QDataStream stream(bytes);
    qint32 version = 0;
    qint32 count = 0;
    ComSettingsRecord read;
    stream >> version;
    if (version != comSettingsVersion)
        return wrongVersion(version, comSettingsVersion);
    stream >> count >> read.packetSize;
    if (count > bytes.size() / minPortBytes)
        return damaged();
    for (qint32 i = 0; i < count; ++i) {
        ComPortRecord port;
        stream >> port.enabled >> port.portName >> port.initString >> port.baudRate >> port.flowControl >>
            port.dataBits >> port.parity >> port.stopBits;
        read.ports.append(port);
    }
    if (stream.status() != QDataStream::Ok)
        return damaged();
    *settings = read;
    return QString();
}

QByteArray writeComAbonent(const ComAbonentRecord& abonent)
{
    QByteArray bytes;
    QDataStream stream(&bytes, QIODevice::WriteOnly);
    stream << comAbonentVersion << abonent.phoneNumber << abonent.allowedPorts;
    return bytes;
}

QString readComAbonent(const QByteArray& bytes, ComAbonentRecord* abonent)
{
    QDataStream stream(bytes);
    qint32 version = 0;
    stream >> version;
    if (version != comAbonentVersion)
        return wrongVersion(version, comAbonentVersion);
    ComAbonentRecord read;
    qint32 count = 0;
    stream >> read.phoneNumber >> count;
    for (qint32 i = 0; i < count && stream.status() == QDataStream::Ok; ++i) {
        QString port;
        stream >> port;
        read.allowedPorts.append(port);
    }
    if (stream.status() != QDataStream::Ok || count < 0)
        return damaged();
    *abonent = read;
    return QString();
}

} // namespace host
