// The byte formats in which the dial-up channel takes its settings: the host's settings
// editor writes them, the plug-in reads them. The host knows the formats and not the
// plug-in's code.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>
#include <QVector>

namespace host {

// One serial port; the numbers are those of QSerialPort's enumerations.
struct ComPortRecord
{
    bool enabled = true;
    QString portName;
    QString initString; // as typed: the plug-in turns \t, \r and \n into characters
    qint32 baudRate = 115200;
    qint32 flowControl = 1; // 0 none, 1 hardware, 2 software
    qint32 dataBits = 8;
    qint32 parity = 0; // 0 none, 2 even, 3 odd, 4 space, 5 mark
    qint32 stopBits = 1; // 1 one, 3 one and a half, 2 two
};

// The content of channelCom.conf.
struct ComSettingsRecord
{
    QVector<ComPortRecord> ports;
    qint32 packetSize = 1024; // the largest packet of the link in bytes
};

// How an abonent is reached.
struct ComAbonentRecord
{
    QString phoneNumber;
    QStringList allowedPorts; // empty: any
};

constexpr qint32 comSettingsVersion = 3;
constexpr qint32 comAbonentVersion = 4;

[[nodiscard]] QByteArray writeComSettings(const ComSettingsRecord& settings);
[[nodiscard]] QByteArray writeComAbonent(const ComAbonentRecord& abonent);

// An error text, empty on success; the record is changed only on success.
[[nodiscard]] QString readComSettings(const QByteArray& bytes, ComSettingsRecord* settings);
[[nodiscard]] QString readComAbonent(const QByteArray& bytes, ComAbonentRecord* abonent);

} // namespace host
