#include "tests/soak/hubsite.h"

#include "rig/time/fibers.h"
#include "tests/soak/hubpaths.h"

#include <QCryptographicHash>

#include <algorithm>
#include <filesystem>
#include <fstream>

namespace soak {

using namespace rig;

namespace {

constexpr std::int64_t lookNs = nsPerS;
constexpr std::int64_t rescanNs = 5 * nsPerS;

constexpr qint64 leastShareBytes = 5 << 19;
constexpr qint64 askedBytes = 1024 * 1024 + 65536; // that may come between two questions

host::InboxLimits limitsOf(const HubScenario& scenario, const HubScenario::SitePlan& plan)
{
    host::InboxLimits limits;
    limits.maxMessageBytes = plan.maxMessageBytes;
    limits.ofAbonent = {leastShareBytes + scenario.mostMessages * scenario.largestMessage, scenario.mostMessages,
                        scenario.mostMessages * 4};
    return limits;
}

} // namespace

HubSite::HubSite(int index, const HubScenario& scenario, const std::string& directory, HubLedger* ledger,
                 Checks* checks)
    : m_index(index), m_scenario(scenario), m_plan(scenario.sites[static_cast<std::size_t>(index)]), m_ledger(ledger),
      m_checks(checks), m_name(QStringLiteral("Site%1").arg(index)),
      m_sources(directory + "/sources-" + std::to_string(index)),
      m_disk(directory + "/disk-" + std::to_string(index), scenario.seed * 64 + static_cast<std::uint64_t>(index)),
      m_rng(scenario.seed * 64 + 32 + static_cast<std::uint64_t>(index))
{
    std::filesystem::create_directories(m_sources);
    m_disk.setTimes(m_plan.syncNs, m_plan.callNs);
    ledger->addSite(m_disk.root(), m_name, limitsOf(scenario, m_plan));
}

// ---- the process ----

void HubSite::live()
{
    while (!m_over) {
        beginProcess();
        if (!m_disk.isDead() && m_up)
            serve();
        endProcess();
    }
}

void HubSite::beginProcess()
{
    static int lastProcess = firstProcess;
    m_process = ++lastProcess;
    m_restart = false;
    ++m_starts;
    setProcessAlive(m_process, true);
    setDiskOfProcess(m_process, &m_disk);
    m_limits = limitsOf(m_scenario, m_plan);
    if (!m_faultsOver && m_rng.chance(0.2)) // an operator who takes less for a while
        m_limits.maxMessageBytes =
            static_cast<qint64>(m_rng.logBetween(100, static_cast<double>(m_plan.maxMessageBytes)));
    m_store = std::make_unique<host::MessageStore>(hubPaths(m_disk.root()), m_limits);
    QString error;
    m_store->open(&error);
    m_up = error.isEmpty();
    if (!m_up && !m_disk.isDead() && !m_disk.isFull())
        m_checks->violation("the store does not open: " + error.toStdString());
}

void HubSite::serve()
{
    std::int64_t nextRescan = nowNs();
    while (isUp() && !m_over && !m_restart) {
        if (!m_wishes.empty())
            queueNext();
        if (nowNs() >= nextRescan) {
            m_store->queue().rescan();
            nextRescan = nowNs() + rescanNs;
        }
        Fibers::sleepFor(lookNs);
    }
}

void HubSite::endProcess()
{
    m_up = false;
    if (!m_disk.isDead() && m_rng.chance(0.5) && !m_over && !m_faultsOver)
        m_disk.die();
    while (m_sessions > 0)
        Fibers::sleepFor(lookNs / 10);
    m_store.reset();
    setProcessAlive(m_process, false);
    setDiskOfProcess(m_process, nullptr);
    m_disk.restart(m_losesPower);
    m_losesPower = false;
    m_ledger->check();
    if (!m_over)
        Fibers::sleepFor(m_faultsOver ? nsPerS : static_cast<std::int64_t>(m_rng.logBetween(1, 60)) * nsPerS);
}

// ---- what it sends ----

void HubSite::giveMessage(int to, int size)
{
    m_wishes.push_back({to, size});
}

// As another program does it, with a queue object of its own.
void HubSite::queueNext()
{
    const Wish wish = m_wishes.front();
    m_wishes.erase(m_wishes.begin());
    SentMessage message;
    message.from = m_index;
    message.to = wish.to;
    message.fileName = QStringLiteral("%1-%2").arg(m_index).arg(m_ledger->messages().size());
    message.size = wish.size;
    std::string bytes(static_cast<std::size_t>(wish.size), '\0');
    for (char& byte : bytes)
        byte = static_cast<char>(m_rng.next());
    message.sha256 = QCryptographicHash::hash(QByteArray(bytes.data(), wish.size), QCryptographicHash::Sha256);
    const std::string path = m_sources + '/' + message.fileName.toStdString();
    std::ofstream(path, std::ios::binary) << bytes;
    const std::size_t index = m_ledger->add(message);
    const host::StorePaths paths = hubPaths(m_disk.root());
    host::OutgoingQueue queue(paths.output, paths.tasks);
    host::QueuedMessage queued;
    const QString error = queue.enqueue(m_ledger->nameOf(wish.to), QString::fromStdString(path), &queued);
    m_ledger->message(index).id = queued.id;
    // What is said behind its death nobody hears.
    if (error.isEmpty() && !m_disk.isDead())
        m_ledger->message(index).isQueued = true;
    else if (!m_disk.isDead() && !m_disk.isFull() && m_faultsOver)
        m_checks->violation("cannot queue: " + error.toStdString());
    std::filesystem::remove(path);
}

void HubSite::onEvent(const host::SessionEvent& event)
{
    if (m_disk.isDead())
        return;
    m_checks->note(static_cast<std::uint64_t>(nowNs()));
    m_checks->note(static_cast<std::uint64_t>(event.kind));
    switch (event.kind) {
    case host::SessionEvent::Kind::FileDelivered: m_ledger->delivered(m_index, event.file.fileName); break;
    case host::SessionEvent::Kind::FileStored: m_ledger->stored(m_index); break;
    case host::SessionEvent::Kind::FileBegun:
        if (!event.file.isOutgoing)
            checkTakenUp(event);
        break;
    case host::SessionEvent::Kind::FileProgress:
        if (!event.file.isOutgoing)
            checkGrowth(event);
        break;
    default: break;
    }
}

void HubSite::checkTakenUp(const host::SessionEvent& event)
{
    if (event.file.sizeBytes > m_limits.maxMessageBytes)
        m_checks->violation("takes up a message of " + std::to_string(event.file.sizeBytes) +
                            " bytes, more than it may have");
    if (event.file.sizeBytes > event.file.doneBytes && m_disk.shortForNs() > noticedNs)
        m_checks->violation("takes a message up although the disk is short");
}

void HubSite::checkGrowth(const host::SessionEvent& event)
{
    if (!m_disk.isShort()) {
        m_bytesWhenShort.clear();
        return;
    }
    const qint64 before = m_bytesWhenShort.emplace(event.file.sha256, event.file.doneBytes).first->second;
    if (event.file.doneBytes - before > askedBytes)
        m_checks->violation("goes on with a message although the disk is short");
}

// ---- what goes wrong ----

void HubSite::suffer()
{
    const double rate = m_scenario.deathsPerHour + m_scenario.fullPerHour;
    if (rate <= 0)
        return;
    while (!m_faultsOver) {
        const double wait = -std::log1p(-m_rng.unit()) * 3600 / rate;
        for (const std::int64_t until = nowNs() + static_cast<std::int64_t>(wait * nsPerS);
             nowNs() < until && !m_faultsOver;)
            Fibers::sleepFor(std::min<std::int64_t>(until - nowNs(), 5 * nsPerS));
        if (m_faultsOver)
            return;
        if (m_rng.unit() * rate < m_scenario.fullPerHour) {
            fillDisk(static_cast<std::int64_t>(m_rng.logBetween(1, 120)) * nsPerS);
        } else {
            m_losesPower = m_rng.chance(m_scenario.powerShare);
            if (m_rng.chance(0.8))
                m_disk.dieAtCall(1 + static_cast<std::uint64_t>(m_rng.logBetween(1, 60)));
            else
                m_disk.die();
        }
    }
}

void HubSite::fillDisk(std::int64_t ns)
{
    const bool isShortOnly = m_rng.chance(0.3);
    isShortOnly ? m_disk.setShort(true) : m_disk.setFull(true);
    for (const std::int64_t until = nowNs() + ns; nowNs() < until && !m_faultsOver;)
        Fibers::sleepFor(std::min<std::int64_t>(until - nowNs(), nsPerS));
    m_disk.setShort(false);
    m_disk.setFull(false);
}

void HubSite::endFaults()
{
    m_faultsOver = true;
    if (m_limits.maxMessageBytes < m_plan.maxMessageBytes)
        m_restart = true;
    m_disk.setShort(false);
    m_disk.setFull(false);
    m_disk.dieAtCall(0); // no such call any more
}

} // namespace soak
