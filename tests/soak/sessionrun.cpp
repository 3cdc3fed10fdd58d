#include "tests/soak/sessionrun.h"

#include "host/session/session.h"
#include "rig/host/memorystore.h"
#include "rig/host/sealedpeer.h"
#include "rig/line/turns.h"
#include "rig/silentstate.h"
#include "tests/soak/scenarioend.h"
#include "tests/soak/scenariorun.h"

#include <algorithm>
#include <map>
#include <memory>

namespace soak {

using namespace rig;

namespace {

constexpr std::int64_t hangUpNs = 3 * nsPerS; // from the end of a session to the next call
constexpr std::int64_t longestPauseNs = 30 * nsPerS;

qint64 steadyMs()
{
    return nowNs() / nsPerMs;
}

// All files of a run, as they were when they were queued.
using Originals = std::map<quint64, QByteArray>;

// One installation: its messages, and the session of the call at hand.
class Site : public ScenarioEnd
{
public:
    Site(int end, const Scenario& scenario, const Originals* originals, Checks* checks)
        : ScenarioEnd(end, scenario, 7, checks), m_originals(originals)
    {
    }

    rig::MemoryStore store;

    void setOther(const Site* other) { m_other = other; }

    void beginCall()
    {
        m_port.clear();
        m_channel = makeChannel(&m_state);
        host::SessionSettings settings;
        settings.abonentName = QString::number(m_end);
        settings.identity = rig::testKey(m_end);
        m_directory.everybodyElse = QString::number(1 - m_end);
        const host::SessionCall call{m_end == 0, m_directory.everybodyElse};
        m_session = std::make_unique<host::Session>(
            settings, call, &m_directory, store.forSessions(),
            [this](const host::SessionEvent& event) { onEvent(event); }, steadyMs());
        beginTurnsNow();
    }

    void endCall()
    {
        if (m_session && !m_session->isFinished())
            m_session->connectionLost();
        m_session.reset();
        m_channel.reset();
    }

    bool isInCall() const { return m_session && !m_session->isFinished(); }

    void turn()
    {
        runEvents();
        readAll(*m_channel, m_settings.readSize, [this](const QByteArray& bytes) {
            m_checks->note(static_cast<std::uint64_t>(nowNs()));
            m_checks->note(bytes.constData(), static_cast<std::size_t>(bytes.size()));
            m_session->receive(bytes, steadyMs());
        });
        m_session->advance(steadyMs());
        const int block = blockSize(m_scenario.channel);
        for (int most = m_channel->idealBlockSize(); most > 0; most = m_channel->idealBlockSize()) {
            const QByteArray output = m_session->takeOutput(std::min(most, block), steadyMs());
            if (output.isEmpty())
                break;
            m_channel->write(output);
        }
        if (!m_channel->isConnected())
            m_session->connectionLost();
        scheduleTurn();
    }

    // Nothing arrived that was not sent, nothing twice.
    void checkInbox()
    {
        for (; m_inboxChecked < store.inbox.size(); ++m_inboxChecked) {
            const rig::InboxEntry& entry = store.inbox[m_inboxChecked];
            const auto original = m_originals->find(entry.id);
            if (original == m_originals->end() || original->second != entry.content)
                m_checks->violation("a file was stored that is not what was sent: " + entry.fileName.toStdString());
            if (++m_timesStored[entry.id] > 1)
                m_checks->violation("a file was stored twice: " + entry.fileName.toStdString());
            m_checks->note(entry.id);
        }
    }

    std::uint64_t bytesStored() const
    {
        std::uint64_t bytes = 0;
        for (const rig::InboxEntry& entry : store.inbox)
            bytes += static_cast<std::uint64_t>(entry.content.size());
        return bytes;
    }

    QString endReason() const { return m_session ? m_session->endReason() : QString(); }

private:
    void onEvent(const host::SessionEvent& event)
    {
        if (event.kind != host::SessionEvent::Kind::FileDelivered)
            return;
        // The sender has been told that the other side has it whole.
        const auto& inbox = m_other->store.inbox;
        const auto isIt = [&](const rig::InboxEntry& entry) { return entry.id == event.file.messageId; };
        const auto found = std::find_if(inbox.begin(), inbox.end(), isIt);
        const auto original = m_originals->find(event.file.messageId);
        if (found == inbox.end() || original == m_originals->end() || found->content != original->second)
            m_checks->violation("reported delivered, but the other side does not have it: " +
                                event.file.fileName.toStdString());
    }

    const Originals* m_originals; // not owned
    const Site* m_other = nullptr; // not owned
    rig::SilentState m_state;
    std::unique_ptr<CChannel> m_channel;
    rig::TestDirectory m_directory;
    std::unique_ptr<host::Session> m_session;
    std::size_t m_inboxChecked = 0;
    std::map<quint64, int> m_timesStored;
};

class SessionRun : public ScenarioRun
{
public:
    explicit SessionRun(const Scenario& scenario)
        : ScenarioRun(scenario), m_sites{Site(0, scenario, &m_originals, &m_checks),
                                         Site(1, scenario, &m_originals, &m_checks)},
          m_rng(scenario.seed * 16 + 11)
    {
        m_sites[0].setOther(&m_sites[1]);
        m_sites[1].setOther(&m_sites[0]);
    }

private:
    void beginPhase(const Phase& phase) override
    {
        m_longestCallNs = phase.longestCallNs;
        for (int end = 0; end < 2; ++end) {
            for (const int size : phase.fileSizes[end])
                queueFile(end, size);
        }
    }

    void queueFile(int end, int size)
    {
        const std::string bytes = makeContent(m_scenario.ends[end].content, static_cast<std::size_t>(size), m_rng);
        const QByteArray content(bytes.data(), static_cast<int>(bytes.size()));
        const quint64 id = m_sites[end].store.queue(QString::number(m_originals.size()), content);
        m_originals[id] = content;
    }

    bool isInCall() const { return m_sites[0].isInCall() && m_sites[1].isInCall(); }

    void step() override
    {
        if (!m_calling) {
            sleepUntilNs(m_nextCallNs);
            beginCall();
        }
        Site& site = awaitNextTurn(m_sites);
        site.turn();
        site.checkInbox();
        if (nowNs() - m_callBeganNs > m_longestCallNs || !isInCall())
            endCall();
        watchMemory();
    }

    void beginCall()
    {
        for (int end = 0; end < 2; ++end)
            m_line.from(end).clear();
        m_line.setCarrier(true);
        for (Site& site : m_sites)
            site.beginCall();
        m_calling = true;
        m_callBeganNs = nowNs();
        ++m_connections;
    }

    // One side has hung up, or the carrier is gone: the other side learns it from the
    // carrier, whatever it was doing.
    void endCall()
    {
        m_line.setCarrier(false);
        for (Site& site : m_sites) {
            if (site.isInCall())
                site.turn();
            site.checkInbox();
        }
        for (Site& site : m_sites) {
            if (!site.endReason().isEmpty())
                m_lastReason = site.endReason().toStdString();
            site.endCall();
        }
        m_calling = false;
        m_nextCallNs = nowNs() + hangUpNs + static_cast<std::int64_t>(m_rng.below(longestPauseNs));
    }

    bool isDone() const { return m_sites[0].store.outgoing.empty() && m_sites[1].store.outgoing.empty(); }

    std::int64_t bytesQueued() const
    {
        std::int64_t bytes = 0;
        for (const Site& site : m_sites) {
            for (const auto& entry : site.store.outgoing)
                bytes += entry.content.size();
        }
        return bytes;
    }

    // Nothing goes wrong any more: all files must arrive, and be known to have.
    void finish() override
    {
        const double seconds = 3600 + 4 * static_cast<double>(bytesQueued()) / slowestGoodput(m_scenario);
        const std::int64_t deadline = nowNs() + static_cast<std::int64_t>(seconds) * nsPerS;
        while (!m_checks.failed() && !isDone()) {
            step();
            if (nowNs() > deadline)
                m_checks.violation("not finished without faults: " + std::to_string(bytesQueued()) +
                                   " bytes left, connections " + std::to_string(m_connections) +
                                   ", the last ended with: " + m_lastReason);
        }
        if (m_calling)
            endCall();
        for (const auto& [id, content] : m_originals) {
            const auto isIt = [&, wanted = id](const rig::InboxEntry& entry) { return entry.id == wanted; };
            int stored = 0;
            for (const Site& site : m_sites)
                stored += static_cast<int>(std::count_if(site.store.inbox.begin(), site.store.inbox.end(), isIt));
            if (stored != 1 && !m_checks.failed())
                m_checks.violation("a file was stored " + std::to_string(stored) + " times");
        }
    }

    void complete(RunResult* result) const override
    {
        result->connections = m_connections;
        for (const Site& site : m_sites)
            result->bytesDelivered += site.bytesStored();
    }

    Originals m_originals;
    std::array<Site, 2> m_sites;
    Rng m_rng;
    bool m_calling = false;
    std::int64_t m_nextCallNs = 0;
    std::int64_t m_callBeganNs = 0;
    std::int64_t m_longestCallNs = never;
    std::uint64_t m_connections = 0;
    std::string m_lastReason;
};

} // namespace

RunResult runSessions(const Scenario& scenario)
{
    SessionRun run(scenario);
    return run.run();
}

} // namespace soak
