// The receiving end of a link, with the rules of a channel and none of its packets' bytes: it knows
// numbers only, and so does what a channel does with one that is too old or too far ahead.
#pragma once

#include "com/link/linkrules.h"

#include <QByteArray>
#include <QList>
#include <QSet>

#include <utility>

namespace linktest {

class ReceivingPeer
{
public:
    void take(const CComPacket& packet)
    {
        linkrules::dropOvertaken(m_held, expectedNumber(), packet.number);
        if (packet.number == expectedNumber()) {
            deliver(packet);
        } else if (linkrules::numberLessThen(expectedNumber(), packet.number)) {
            linkrules::hold(m_held, packet);
            while (!m_held.isEmpty() && m_held.first().number == expectedNumber())
                deliver(m_held.takeFirst());
        }
        m_toConfirm.insert(packet.number);
    }

    // Place in the stream of what is due, from 1 on.
    qint64 expected() const { return m_expected; }
    quint8 expectedNumber() const { return static_cast<quint8>(m_expected); }

    QByteArray takeDelivered() { return std::exchange(m_delivered, QByteArray()); }

    int toConfirm() const { return m_toConfirm.size(); }
    QSet<quint8> confirm() { return std::exchange(m_toConfirm, {}); }

private:
    void deliver(const CComPacket& packet)
    {
        m_delivered += packet.data;
        ++m_expected;
    }

    qint64 m_expected = 1;
    QList<CComPacket> m_held;
    QByteArray m_delivered;
    QSet<quint8> m_toConfirm;
};

} // namespace linktest
