// One installation of a run with several lines: a process with the real store on a simulated
// disk, which dies, is started again, and is given files to send.
#pragma once

#include "host/session/session.h"
#include "host/store/messagestore.h"
#include "rig/time/simdisk.h"
#include "tests/soak/checks.h"
#include "tests/soak/hubledger.h"
#include "tests/soak/hubscenario.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <map>
#include <memory>
#include <vector>

namespace soak {

class HubSite
{
public:
    // After so long everybody who asks before each step has noticed that the disk is short.
    static constexpr std::int64_t noticedNs = 5 * rig::nsPerS;

    // Neither checks nor ledger is owned. directory: of the run, for this site's disk.
    HubSite(int index, const HubScenario& scenario, const std::string& directory, HubLedger* ledger, Checks* checks);

    // The life of the process, in a fiber of its own, until isOver().
    void live();
    // What goes wrong with it, in another, until faults end.
    void suffer();

    void endFaults();
    void setOver() { m_over = true; }
    void restartSoon() { m_restart = true; }

    bool isUp() const { return m_up && !m_disk.isDead(); }
    const int* process() const { return &m_process; }
    int index() const { return m_index; }
    int tickMs() const { return m_plan.tickMs; }
    rig::SimDisk& disk() { return m_disk; }
    host::MessageStore& store() { return *m_store; }
    const QString& name() const { return m_name; }
    const host::InboxLimits& limits() const { return m_limits; }

    // Sessions count themselves, since the process ends behind the last one.
    void sessionBegins() { ++m_sessions; }
    void sessionEnds() { --m_sessions; }

    // For a session that has ended a call while it was alive.
    void onEvent(const host::SessionEvent& event);
    // A message for another site, to be queued soon.
    void giveMessage(int to, int size);

    std::uint64_t starts() const { return m_starts; }

private:
    struct Wish
    {
        int to = 0;
        int size = 0;
    };

    void beginProcess();
    void serve();
    void endProcess();
    void queueNext();
    void fillDisk(std::int64_t ns);
    void checkTakenUp(const host::SessionEvent& event);
    void checkGrowth(const host::SessionEvent& event);

    const int m_index;
    const HubScenario& m_scenario;
    const HubScenario::SitePlan m_plan;
    HubLedger* const m_ledger; // not owned
    Checks* const m_checks; // not owned
    const QString m_name;
    const std::string m_sources; // files to be queued
    rig::SimDisk m_disk;
    rig::Rng m_rng;
    std::unique_ptr<host::MessageStore> m_store;
    host::InboxLimits m_limits; // of this process
    std::map<QByteArray, qint64> m_bytesWhenShort; // that had come of a message when the disk was short
    std::vector<Wish> m_wishes;
    int m_process = 0;
    int m_sessions = 0;
    bool m_up = false;
    bool m_over = false;
    bool m_restart = false;
    bool m_faultsOver = false;
    bool m_losesPower = false;
    std::uint64_t m_starts = 0;
};

} // namespace soak
