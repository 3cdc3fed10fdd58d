// The settings records of one serial port and of one abonent's addressing. Hosts keep
// them as byte arrays that only this channel reads and writes.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class QDataStream;

// One serial port. The -1 of a record that was never filled is no valid line parameter.
struct ComPortSettings
{
    bool enabled = false; // only enabled ports get a port worker
    QString portName;
    QString initString; // sent to the modem after opening; may hold control characters
    int baudRate = -1;
    int flowControl = -1; // a QSerialPort::FlowControl
    int dataBits = -1; // a QSerialPort::DataBits
    int parity = -1; // a QSerialPort::Parity
    int stopBits = -1; // a QSerialPort::StopBits
};

bool operator==(const ComPortSettings& left, const ComPortSettings& right);
inline bool operator!=(const ComPortSettings& left, const ComPortSettings& right)
{
    return !(left == right);
}

QDataStream& operator<<(QDataStream& stream, const ComPortSettings& settings);
// After a failed read the fields behind the failure are false, empty or zero.
QDataStream& operator>>(QDataStream& stream, ComPortSettings& settings);

// How one abonent is called.
struct AbonentComSettings
{
    static constexpr int formatVersion = 4;

    QString phoneNumber;
    QStringList allowedPorts; // names; empty: any port

    QByteArray toByteArray() const;
    // Returns an error text, empty on success. Data of another version leave the record
    // as it was; damaged data leave no allowed ports.
    QString fromByteArray(const QByteArray& data);
};

// What a user writes as \t, \r and \n in an init string, as the characters meant:
// replaced in this order, each over the whole text, so a backslash cannot be escaped
// and stays, as does every other one.
QString unescapeInitString(QString text);

// The error texts of the settings records.
QString settingsVersionError(int version, int currentVersion);
QString settingsDamagedError();
