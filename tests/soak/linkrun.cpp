#include "tests/soak/linkrun.h"

#include "rig/line/turns.h"
#include "rig/packetoracle.h"
#include "rig/silentstate.h"
#include "tests/soak/scenarioend.h"
#include "tests/soak/scenariorun.h"

#include <algorithm>
#include <deque>
#include <memory>
#include <set>

namespace soak {

using namespace rig;

namespace {

constexpr std::int64_t heartbeatNs = nsPerS;
constexpr int numbers = 256;

// What a header that only looks like one makes a receiver wait for.
constexpr std::int64_t longestPacketBytes = 65546;

// The stream from one end to the other: what was handed over, what became of it.
class Stream
{
public:
    // hasOwnBlocks: the channel cuts packets as it sees fit, and adds empty ones.
    Stream(int blockBytes, bool hasOwnBlocks, Checks* checks)
        : m_block(blockBytes), m_hasOwnBlocks(hasOwnBlocks), m_checks(checks)
    {
    }

    void written(const std::string& bytes)
    {
        m_pending += bytes;
        m_written += bytes.size();
        if (m_hasOwnBlocks)
            return;
        for (std::size_t from = 0; from < bytes.size(); from += m_block)
            m_packets.push_back({bytes.substr(from, m_block), false});
    }

    // A packet that reached the other port whole.
    void arrived(const rig::WirePacket& packet)
    {
        if (m_hasOwnBlocks) {
            noteArrival(packet);
            return;
        }
        // The latest of that number first: the stream is far past the others.
        for (std::size_t i = m_packets.size(); i > 0; --i) {
            Packet& sent = m_packets[i - 1];
            if (static_cast<std::uint8_t>(m_firstPacket + i) != packet.number || sent.payload != packet.payload)
                continue;
            m_arrived += sent.arrived ? 0 : sent.payload.size();
            sent.arrived = true;
            return;
        }
    }

    void confirmed(int bytes) { m_confirmed += static_cast<std::uint64_t>(bytes); }
    void reportedDelivered(int bytes) { m_reported += static_cast<std::uint64_t>(bytes); }

    void delivered(const QByteArray& bytes)
    {
        const auto size = static_cast<std::size_t>(bytes.size());
        if (size > m_pending.size() || m_pending.compare(0, size, bytes.constData(), size) != 0)
            m_checks->violation("delivered is not what was sent, within " + std::to_string(size) + " bytes from " +
                                std::to_string(m_delivered) + " of " + std::to_string(m_written));
        m_pending.erase(0, size);
        m_delivered += size;
        if (size > 0)
            m_deliveredAtNs = nowNs();
    }

    void check()
    {
        if (m_confirmed > m_arrived)
            m_checks->violation("confirmed " + std::to_string(m_confirmed) + " bytes of which only " +
                                std::to_string(m_arrived) + " arrived");
        if (m_reported < m_delivered)
            m_checks->violation("delivered " + std::to_string(m_delivered) + " bytes but reported only " +
                                std::to_string(m_reported));
        forgetOld();
    }

    std::uint64_t written() const { return m_written; }
    std::uint64_t delivered() const { return m_delivered; }
    std::uint64_t confirmedBytes() const { return m_confirmed; }
    std::int64_t standsStillSince() const { return m_delivered == m_written ? nowNs() : m_deliveredAtNs; }
    void startWatch() { m_deliveredAtNs = nowNs(); }

private:
    struct Packet
    {
        std::string payload;
        bool arrived;
    };

    // The nearest place in the stream with this number.
    void noteArrival(const rig::WirePacket& packet)
    {
        const auto ahead = static_cast<std::int8_t>(packet.number - static_cast<std::uint8_t>(m_lastArrived));
        const std::int64_t place = m_lastArrived + ahead;
        m_lastArrived = std::max(m_lastArrived, place);
        if (m_places.insert(place).second)
            m_arrived += packet.payload.size();
    }

    void forgetOld()
    {
        // More than once round the numbers: no repeat of these can come.
        while (m_packets.size() > 3 * numbers && m_packets.front().arrived) {
            m_packets.pop_front();
            ++m_firstPacket;
        }
        while (!m_places.empty() && *m_places.begin() < m_lastArrived - 3 * numbers)
            m_places.erase(m_places.begin());
    }

    std::size_t m_block;
    bool m_hasOwnBlocks;
    std::set<std::int64_t> m_places; // in the stream, of what arrived lately
    std::int64_t m_lastArrived = 0;
    Checks* m_checks; // not owned
    std::string m_pending; // handed over and not delivered
    std::deque<Packet> m_packets;
    std::uint64_t m_firstPacket = 0;
    std::uint64_t m_written = 0;
    std::uint64_t m_arrived = 0;
    std::uint64_t m_confirmed = 0;
    std::uint64_t m_reported = 0;
    std::uint64_t m_delivered = 0;
    std::int64_t m_deliveredAtNs = 0;
};

class TrafficState : public rig::SilentState
{
public:
    TrafficState(Stream* sending, Stream* receiving) : m_sending(sending), m_receiving(receiving) {}
    void addReceivedBytes(int, int bytes) override { m_receiving->reportedDelivered(bytes); }
    void addSentBytes(int, int bytes) override { m_sending->confirmed(bytes); }

private:
    Stream* m_sending; // not owned
    Stream* m_receiving; // not owned
};

// One end, with a host that reads and writes as its settings say.
class End : public ScenarioEnd
{
public:
    End(int end, const Scenario& scenario, Stream* sending, Stream* receiving, Checks* checks)
        : ScenarioEnd(end, scenario, 5, checks), m_state(sending, receiving), m_channel(makeChannel(&m_state)),
          m_sending(sending), m_receiving(receiving)
    {
    }

    void stopBulk() { m_bulkOver = true; }
    // Nothing is read any more: what the port keeps for what came (see mostMemoryBytes) goes.
    void dropInput() { m_port.clear(QSerialPort::Input); }

    void turn()
    {
        runEvents();
        // Nothing holds a peer back but this: what a host leaves in the channel piles up.
        readAll(*m_channel, m_settings.readSize, [this](const QByteArray& bytes) { m_receiving->delivered(bytes); });
        m_checks->note(static_cast<std::uint64_t>(nowNs()));
        m_checks->note(m_receiving->delivered());
        if (!m_bulkOver)
            writeBulk();
        if (nowNs() >= m_nextHeartbeatNs && m_channel->idealBlockSize() > 0) {
            write(static_cast<int>(std::min<std::int64_t>(m_rng.between(1, 24), m_scenario.channel.packetSize)));
            m_nextHeartbeatNs = nowNs() + heartbeatNs;
        }
        scheduleTurn();
    }

private:
    void write(int size)
    {
        const std::string bytes = makeContent(m_settings.content, static_cast<std::size_t>(size), m_rng);
        m_sending->written(bytes);
        m_channel->write(QByteArray(bytes.data(), size));
    }

    void writeBulk()
    {
        for (int writes = 0; writes < m_settings.writesPerTurn; ++writes) {
            int most = m_channel->idealBlockSize();
            if (most <= 0)
                return;
            // With settings that make blocks smaller than what is offered, one write can
            // queue more packets than a peer without our limits can tell apart.
            if (m_scenario.plainPeer[m_end])
                most = std::min(most, blockSize(m_scenario.channel));
            switch (m_settings.writing) {
            case Writing::Bulk: write(most); break;
            case Writing::Blocks: write(blockSize(m_scenario.channel)); break;
            case Writing::Small: write(static_cast<int>(m_rng.between(1, std::min(40, most)))); break;
            case Writing::Mixed: write(static_cast<int>(m_rng.between(1, most))); break;
            case Writing::Chat:
                if (m_rng.chance(0.02))
                    write(static_cast<int>(m_rng.between(1, std::min(200, most))));
                return;
            case Writing::Quiet: return;
            }
        }
    }

    TrafficState m_state;
    std::unique_ptr<CChannel> m_channel;
    Stream* m_sending; // not owned
    Stream* m_receiving; // not owned
    bool m_bulkOver = false;
    std::int64_t m_nextHeartbeatNs = 0;
};

class LinkRun : public ScenarioRun, private Line::Listener
{
public:
    explicit LinkRun(const Scenario& scenario)
        : ScenarioRun(scenario), m_streams{makeStream(scenario, 0), makeStream(scenario, 1)},
          m_ends{End(0, scenario, &m_streams[0], &m_streams[1], &m_checks),
                 End(1, scenario, &m_streams[1], &m_streams[0], &m_checks)}
    {
        m_line.setListener(this);
    }

private:
    Stream makeStream(const Scenario& scenario, int end)
    {
        return Stream(blockSize(scenario.channel), scenario.adaptive[end], &m_checks);
    }

    void bytesRead(int end, const char* data, std::size_t size) override
    {
        rig::PacketCutter& cutter = m_cutters[end];
        cutter.append(data, size);
        rig::WirePacket packet;
        while (cutter.next(&packet)) {
            if (packet.type == rig::dataType)
                m_streams[1 - end].arrived(packet);
        }
    }

    void step() override
    {
        awaitNextTurn(m_ends).turn();
        for (Stream& stream : m_streams)
            stream.check();
        watchMemory();
    }

    // Nothing goes wrong any more: what was sent must arrive, and be known to have.
    void finish() override
    {
        // Some more of the usual first: a stream that has lost its way shows it then.
        const std::int64_t usualUntil = nowNs() + usualStandstillNs() / 4;
        for (Stream& stream : m_streams)
            stream.startWatch();
        while (nowNs() < usualUntil && !m_checks.failed())
            watchedStep();
        for (End& end : m_ends)
            end.stopBulk();
        const std::array<std::uint64_t, 2> due = {m_streams[0].written(), m_streams[1].written()};
        const std::int64_t deadline = nowNs() + 5 * standstillLimitNs();
        while (!m_checks.failed() && !(isDone(0, due[0]) && isDone(1, due[1]))) {
            watchedStep();
            if (nowNs() > deadline)
                m_checks.violation("not finished without faults: " + progress(0) + ", " + progress(1));
        }
        for (End& end : m_ends)
            end.dropInput();
        const std::size_t queues = 4 * static_cast<std::size_t>(m_scenario.channel.maxBytesInQueue);
        m_checks.checkMemory(memoryLeftBytes + queues);
    }

    void watchedStep()
    {
        step();
        for (int end = 0; end < 2; ++end) {
            const std::int64_t standstill = nowNs() - m_streams[end].standsStillSince();
            m_longestStandstillNs = std::max(m_longestStandstillNs, standstill);
            if (standstill > standstillLimitNs())
                m_checks.violation("stands still without faults: " + progress(end));
        }
    }

    bool isDone(int end, std::uint64_t due) const
    {
        return m_streams[end].delivered() >= due && m_streams[end].confirmedBytes() >= due;
    }

    std::string progress(int end) const
    {
        return "from end " + std::to_string(end) + " written " + std::to_string(m_streams[end].written()) +
               " delivered " + std::to_string(m_streams[end].delivered()) + " confirmed " +
               std::to_string(m_streams[end].confirmedBytes());
    }

    // A receiver that took noise for a header waits for as much as a packet can hold, out of
    // the repeats of a queue; and on a slow line those repeats stand in front of what is
    // missing.
    std::int64_t usualStandstillNs() const
    {
        const ChannelSettings& c = m_scenario.channel;
        const std::int64_t bytes =
            longestPacketBytes + 4 * (m_scenario.line.driverDepth + c.maxBytesInQueue + c.packetSize);
        const std::int64_t onLine = bytes * 10 * nsPerS / m_scenario.line.bitsPerSecond;
        const std::int64_t repeats = 60 * std::int64_t(c.resendIntervalMs) * nsPerMs;
        return 300 * nsPerS + 4 * onLine + repeats + 20 * m_scenario.line.delayNs;
    }

    // At the worst a gap holds all new packets back, all others are confirmed, and the
    // receiver's wait is fed by the repeats of one packet of a single byte. It ends, but a
    // session does better to end the connection.
    std::int64_t standstillLimitNs() const
    {
        if (m_scenario.adaptive[0] && m_scenario.adaptive[1])
            return adaptiveStandstillLimitNs();
        constexpr std::int64_t smallestPacketBytes = 12;
        const std::int64_t repeats = longestPacketBytes / smallestPacketBytes + 1;
        return usualStandstillNs() + repeats * (m_scenario.channel.resendIntervalMs + 300) * nsPerMs;
    }

    // The silence is noticed within three time-outs, and then everything is repeated at the line's
    // rate, until as much has come as a false header can announce; now and then it comes twice.
    std::int64_t adaptiveStandstillLimitNs() const
    {
        const std::int64_t bytes = longestPacketBytes + m_scenario.line.driverDepth;
        return 60 * nsPerS + 2 * bytes * 10 * nsPerS / m_scenario.line.bitsPerSecond + 20 * m_scenario.line.delayNs;
    }

    void complete(RunResult* result) const override
    {
        for (const Stream& stream : m_streams)
            result->bytesDelivered += stream.delivered();
        result->longestStandstillNs = m_longestStandstillNs;
    }

    std::array<Stream, 2> m_streams;
    std::array<End, 2> m_ends;
    std::array<rig::PacketCutter, 2> m_cutters;
    std::int64_t m_longestStandstillNs = 0;
};

} // namespace

RunResult runLink(const Scenario& scenario)
{
    LinkRun run(scenario);
    return run.run();
}

} // namespace soak
