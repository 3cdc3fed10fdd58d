// A peer of another make: a link channel that follows the rules of the wire as every
// such channel does, but without the safeguards that ours adds (held packets that the
// stream has passed stay; nothing waits while the other side has a gap). Written on its
// own, sharing nothing with the channel under test.
#pragma once

#include "plugin/api/cchannel.h"
#include "rig/packetoracle.h"
#include "rig/runs/channelsettings.h"

#include <cstdint>
#include <deque>
#include <set>
#include <string>
#include <vector>

class CAbstractChannelsState;
class QSerialPort;

namespace soak {

class PlainPeer : public CChannel
{
public:
    // Neither pointer is owned.
    PlainPeer(QSerialPort* port, CAbstractChannelsState* state, int index, const rig::ChannelSettings& settings);

    void disconnectFromAbonent() override;
    bool isConnected() override;
    void write(const QByteArray& data) override;
    QByteArray read(int maxSize) override;
    int idealBlockSize() override;

private:
    struct Queued
    {
        std::uint8_t number;
        int size;
        std::string image;
        std::int64_t sentMs; // 0: never
    };

    void receive(const rig::WirePacket& packet);
    void deliver(const rig::WirePacket& packet);
    void confirmedByPeer(const std::string& numbers);
    void sendPackets();
    void sendConfirmations();
    bool awaitWritten(int ms);

    QSerialPort* m_port;
    CAbstractChannelsState* m_state;
    int m_index;
    rig::ChannelSettings m_settings;
    bool m_connected = true;
    std::string m_received;
    rig::PacketCutter m_cutter;
    std::deque<Queued> m_queue;
    std::vector<rig::WirePacket> m_held;
    std::uint8_t m_nextNumber = 1;
    std::uint8_t m_expected = 1;
    int m_queuedBytes = 0;
    std::set<std::uint8_t> m_toConfirm;
    std::int64_t m_lastConfirmationNs;
};

} // namespace soak
