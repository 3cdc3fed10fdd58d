#include "rig/port/fakeserialport.h"

#include <QThread>

#include <algorithm>
#include <cstring>

namespace rig {

FakeSerialPort::FakeSerialPort()
{
    // Unbuffered, so that QIODevice keeps no bytes of its own.
    // The serial port's own would look for a device. NOLINTNEXTLINE(bugprone-parent-virtual-call)
    QIODevice::open(QIODevice::ReadWrite | QIODevice::Unbuffered);
}

void FakeSerialPort::setRoom(int bytes)
{
    m_room = bytes;
    drain();
}

QByteArray FakeSerialPort::takeWritten()
{
    return std::exchange(m_written, QByteArray());
}

bool FakeSerialPort::waitForReadyRead(int msecs)
{
    m_readWaits.append(msecs);
    m_arrived += std::exchange(m_arrivingOnWait, QByteArray());
    if (m_arrived.isEmpty())
        QThread::msleep(static_cast<unsigned long>(msecs));
    return !m_arrived.isEmpty();
}

bool FakeSerialPort::waitForBytesWritten(int msecs)
{
    m_writeWaits.append(msecs);
    const int before = m_pending.size();
    drain();
    if (m_pending.size() < before)
        return true;
    QThread::msleep(static_cast<unsigned long>(msecs));
    return false;
}

qint64 FakeSerialPort::readData(char* data, qint64 maxSize)
{
    const int size = static_cast<int>(std::min<qint64>(maxSize, m_arrived.size()));
    std::memcpy(data, m_arrived.constData(), static_cast<std::size_t>(size));
    m_arrived.remove(0, size);
    if (size > 0 && m_afterRead)
        m_afterRead();
    return size;
}

qint64 FakeSerialPort::readLineData(char* data, qint64 maxSize)
{
    const int end = m_arrived.indexOf('\n');
    return readData(data, end < 0 ? maxSize : std::min<qint64>(maxSize, end + 1));
}

qint64 FakeSerialPort::writeData(const char* data, qint64 size)
{
    m_pending.append(data, static_cast<int>(size));
    return size;
}

// Like a port, gives bytes to the line only within waits (and when room appears).
void FakeSerialPort::drain()
{
    const int size = m_room < 0 ? m_pending.size() : std::min(m_room, m_pending.size());
    if (size == 0)
        return;
    const QByteArray chunk = m_pending.left(size);
    m_pending.remove(0, size);
    if (m_room >= 0)
        m_room -= size;
    if (m_line)
        m_line(chunk);
    else
        m_written += chunk;
}

} // namespace rig
