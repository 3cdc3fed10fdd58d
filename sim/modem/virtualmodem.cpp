#include "sim/modem/virtualmodem.h"

#include <utility>

namespace sim {

VirtualModem::VirtualModem(int index, const ModemSettings& modemSettings, Trace trace)
    : settings(modemSettings), endpoint(modemSettings.linkPath),
      modem(this, modemSettings.number, modemSettings.ringStyle), m_index(index), m_trace(std::move(trace))
{
    endpoint.setDepth(settings.depthBytes);
    reset();
}

void VirtualModem::watchDtr(qint64 nowNs)
{
    const bool dtr = endpoint.programSignals() & SignalDtr;
    const unsigned drops = endpoint.dtrDrops();
    if (drops != m_dtrDrops) {
        m_dtrDrops = drops;
        trace(dtr ? QStringLiteral("DTR dropped and raised") : QStringLiteral("DTR dropped"));
        if (responds())
            modem.dtrDropped(nowNs);
    } else if (dtr != m_dtr) {
        trace(QStringLiteral("DTR raised"));
    }
    m_dtr = dtr;
    // A program that cannot set signals at all is not one that has dropped DTR.
    modem.setDtr(dtr || !endpoint.programSetsSignals());
}

bool VirtualModem::takeCommandByte(qint64 nowNs)
{
    const QByteArray byte = endpoint.read(1);
    if (byte.isEmpty())
        return false;
    modem.byteFromProgram(byte.at(0), nowNs);
    return true;
}

QByteArray VirtualModem::takeData(qint64 room, qint64 nowNs)
{
    m_toLine.clear();
    for (const char byte : endpoint.read(room))
        modem.byteFromProgram(byte, nowNs);
    return m_toLine;
}

bool VirtualModem::flush()
{
    return m_toProgram.flush(endpoint);
}

qint64 VirtualModem::deliver(const QByteArray& bytes)
{
    toProgram(bytes);
    return std::exchange(m_overrun, 0);
}

bool VirtualModem::isBusy() const
{
    return faults.busy || (isAlive() && modem.state() != ModemState::OnHook);
}

void VirtualModem::ring(qint64 nowNs)
{
    if (responds() && !faults.noAnswer)
        modem.ring(nowNs);
}

void VirtualModem::setPowered(bool powered)
{
    if (m_powered == powered)
        return;
    m_powered = powered;
    reset();
}

void VirtualModem::unplug()
{
    endpoint.unplug();
    reset();
}

bool VirtualModem::plugIn()
{
    if (endpoint.isOpen())
        return true;
    const bool plugged = endpoint.plugIn();
    m_dtrDrops = 0;
    m_dtr = false;
    reset();
    return plugged;
}

void VirtualModem::toProgram(const QByteArray& bytes)
{
    if (!responds())
        return;
    m_overrun += m_toProgram.add(bytes);
    flush();
}

void VirtualModem::toLine(char byte)
{
    m_toLine += byte;
}

void VirtualModem::dial(const QString& number, qint64 pauseNs)
{
    requests.push_back({ModemRequest::Dial, number, pauseNs});
}

void VirtualModem::answer()
{
    requests.push_back({ModemRequest::Answer});
}

void VirtualModem::hangUp()
{
    requests.push_back({ModemRequest::HangUp});
}

void VirtualModem::setCarrierDetect(bool raised)
{
    if (m_carrier != raised)
        trace(raised ? QStringLiteral("DCD raised") : QStringLiteral("DCD dropped"));
    m_carrier = raised;
    showSignals();
}

void VirtualModem::setRingIndicator(bool raised)
{
    if (m_ringing != raised)
        trace(raised ? QStringLiteral("RI raised") : QStringLiteral("RI dropped"));
    m_ringing = raised;
    showSignals();
}

void VirtualModem::trace(const QString& text)
{
    m_trace(m_index, text);
}

void VirtualModem::reset()
{
    m_toProgram.clear();
    m_ringing = false;
    modem.powerOn();
    showSignals();
}

void VirtualModem::showSignals()
{
    endpoint.setModemSignals(
        isAlive() ? SignalDsr | SignalCts | (m_carrier ? SignalDcd : 0) | (m_ringing ? SignalRi : 0) : 0);
}

} // namespace sim
