// The settings records of one serial port and of one abonent's addressing. Hosts keep them as byte
// arrays, and can make and show them without any other part of this channel.
#pragma once

#include <QByteArray>
#include <QString>
#include <QStringList>

class QDataStream;

// Why bytes are no record. A host that shows this uses its own words.
struct RecordFault
{
    enum Kind
    {
        None,
        OtherVersion,
        Damaged,
    };
    static RecordFault otherVersion(int version) { return {OtherVersion, version}; }
    static RecordFault damaged() { return {Damaged, 0}; }

    Kind kind = None;
    int version = 0; // with OtherVersion: the version that was found
};

// One serial port. A record that was never filled has -1, which is no valid line parameter.
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
    // Data of another version leave the record as it was; damaged data leave no allowed ports.
    RecordFault read(const QByteArray& data);
    // The same, as an error text that is empty on success.
    QString fromByteArray(const QByteArray& data);
};

// Replaces \t, \r and \n, as a user writes them in an init string, by the control characters: in
// this order, each in the whole text. A backslash cannot be escaped; every other one stays.
QString unescapeInitString(QString text);

// The channel's own text for a fault; empty for none.
QString recordFaultText(const RecordFault& fault, int currentVersion);
