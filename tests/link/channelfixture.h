// A link channel over a port in memory, in a time that the test moves.
#pragma once

#include "com/link/ccomchannel.h"
#include "com/link/currentcomsettings.h"
#include "rig/fakehost.h"
#include "rig/port/fakeserialport.h"
#include "rig/testroot.h"
#include "rig/time/virtualclock.h"
#include "tests/link/bytes.h"

#include <QByteArray>
#include <QDirIterator>
#include <QFile>
#include <QSettings>
#include <QStringList>
#include <gtest/gtest.h>

namespace linktest {

using Numbers = QList<int>;

// Both included; around the wrap.
inline Numbers range(int first, int last)
{
    Numbers numbers;
    for (int number = first; number <= last; ++number)
        numbers.append(number % 256);
    return numbers;
}

inline const QString maxBytesToWriteKey = QStringLiteral("Details/transportComMaxBytesToWrite");

inline QString settingsFile()
{
    return rig::installRoot() + QStringLiteral("/settings/settings.ini");
}

// Before the first look at the settings.
inline void setKey(const QString& key, const QVariant& value)
{
    QSettings(settingsFile(), QSettings::IniFormat).setValue(key, value);
}

inline QVariant keyInFile(const QString& key)
{
    return QSettings(settingsFile(), QSettings::IniFormat).value(key);
}

inline QByteArray wire(int type, int number, const QByteArray& data)
{
    CComPacket packet;
    packet.type = static_cast<quint8>(type);
    packet.number = static_cast<quint8>(number);
    packet.data = data;
    packet.makePacket();
    return packet.bytes;
}

inline QByteArray dataWire(int number, const QByteArray& data)
{
    return wire(DataPacket, number, data);
}

inline QByteArray confirmationWire(const QByteArray& numbers)
{
    return wire(ConfirmationPacket, 0, numbers);
}

// The first and last number included; around the wrap.
inline QByteArray numberRange(int first, int last)
{
    QByteArray numbers;
    for (int number = first; number <= last; ++number)
        numbers.append(static_cast<char>(number));
    return numbers;
}

inline QList<CComPacket> cutPackets(QByteArray bytes)
{
    QList<CComPacket> packets;
    for (CComPacket packet; packet.readPacket(&bytes);)
        packets.append(packet);
    EXPECT_TRUE(bytes.isEmpty()) << "not a packet: " << bytes.toHex().constData();
    return packets;
}

// "label: text" of each line in the log.
inline QStringList logLines()
{
    QStringList lines;
    QDirIterator files(rig::installRoot(), {QStringLiteral("*.log")}, QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        QFile file(files.next());
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        for (const QString& line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
            // hh:mm:ss.zzz, a blank, the label in 25 columns, four blanks or more
            if (line.size() > 42 && line.at(2) == QLatin1Char(':') && line.at(8) == QLatin1Char('.'))
                lines.append(line.mid(13, 25).trimmed() + QStringLiteral(": ") + line.mid(38).trimmed());
        }
    }
    return lines;
}

class ChannelTest : public testing::Test
{
protected:
    static constexpr int channelIndex = 7;

    // What has gone to the line since the last look.
    QList<CComPacket> written() { return cutPackets(m_port.takeWritten()); }

    QList<int> writtenNumbers(int type = DataPacket)
    {
        QList<int> numbers;
        for (const CComPacket& packet : written()) {
            if (packet.type == type)
                numbers.append(packet.number);
        }
        return numbers;
    }

    // The payloads of the confirmations written since the last look.
    QList<QByteArray> writtenConfirmations()
    {
        QList<QByteArray> payloads;
        for (const CComPacket& packet : written()) {
            if (packet.type == ConfirmationPacket)
                payloads.append(packet.data);
        }
        return payloads;
    }

    QByteArray read() { return m_channel.read(1000000); }

    QByteArray readAfter(qint64 ms)
    {
        m_clock.advanceMs(ms);
        return read();
    }

    // So many packets of one byte.
    void writeSingles(int packets)
    {
        for (int i = 0; i < packets; ++i)
            m_channel.write("x");
    }

    // Puts a packet onto the line, where nobody looks at it.
    void sendUnseen(const QByteArray& data)
    {
        m_channel.write(data);
        read();
        m_port.takeWritten();
    }

    QByteArray receive(const QByteArray& bytes)
    {
        m_port.inject(bytes);
        return read();
    }

    // Data packets of these numbers, each with its number as payload.
    QByteArray receiveNumbers(const QList<int>& numbers)
    {
        QByteArray bytes;
        for (const int number : numbers)
            bytes += dataWire(number, QByteArray(1, static_cast<char>(number)));
        return receive(bytes);
    }

    // The same, each read before the next one arrives.
    void receiveOneByOne(int first, int last)
    {
        for (const int number : range(first, last))
            receiveNumbers({number});
    }

    QStringList reports() const { return m_calls.entries(); }

    rig::VirtualClock m_clock;
    rig::FakeSerialPort m_port;
    rig::CallLog m_calls;
    rig::RecordingChannelsState m_state{&m_calls};
    CComChannel m_channel{&m_port, &m_state, channelIndex};
};

} // namespace linktest
