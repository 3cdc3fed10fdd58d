#include "com/port/porterrors.h"

#include <QMutexLocker>

namespace {

unsigned bitOf(QSerialPort::SerialPortError code)
{
    return 1u << (static_cast<unsigned>(code) % 32u);
}

} // namespace

bool PortErrors::isIgnored(QSerialPort::SerialPortError code)
{
    return code == QSerialPort::NoError || code == QSerialPort::DeviceNotFoundError ||
           code == QSerialPort::ResourceError || code == QSerialPort::TimeoutError;
}

bool PortErrors::note(QSerialPort::SerialPortError code, const QSerialPort& port, int state, bool portIsInUse)
{
    if (isIgnored(code) || (m_heldBack & bitOf(code)) != 0)
        return false;
    if (portIsInUse)
        m_heldBack |= bitOf(code);
    QMutexLocker locker(&m_mutex);
    m_noted.append({code, port.errorString(), state, m_opening});
    return true;
}

void PortErrors::portClosed()
{
    ++m_opening;
    m_heldBack = 0;
}

std::optional<PortError> PortErrors::take(QSerialPort::SerialPortError code)
{
    QMutexLocker locker(&m_mutex);
    for (int i = 0; i < m_noted.size(); ++i) {
        if (m_noted.at(i).code == code)
            return m_noted.takeAt(i);
    }
    return std::nullopt;
}
