// A server with many ports in a thread of its own, and the exchange that all its modems
// hang on: the ports call one another.
#pragma once

#include "rig/deadline.h"
#include "rig/server/portboard.h"
#include "rig/server/testedserver.h"
#include "rig/server/traffic.h"
#include "sim/exchange/exchange.h"

#include <QSemaphore>
#include <QString>
#include <QStringList>
#include <QThread>

#include <atomic>
#include <functional>
#include <memory>

namespace rig {

class StressBed
{
public:
    // draw: how each session is to behave; see TrafficFactory.
    StressBed(int ports, const sim::LineSettings& line, std::function<std::optional<SessionPlan>()> draw);
    ~StressBed();

    int portCount() const { return m_ports; }
    // Counted from 1, as the exchange counts its modems.
    QString port(int modem) const { return m_paths.at(modem - 1); }
    static QString number(int modem) { return QString::number(1000 + modem); }
    QString partyAt(int modem) const { return TrafficFactory::nameOf(port(modem)); }

    // settings.ini and channelCom.conf. Any one thread.
    void writeDetails(const QStringList& extraLines = {});
    void writePorts(const std::function<bool(int modem)>& isEnabled = {}, int packetSize = 1024);

    // Runs function in the server's thread and waits for it; or does not wait.
    void inServer(const std::function<void()>& function);
    void postToServer(std::function<void()> function);

    void start(); // in the server's thread
    // From the calling thread, as a host does; false when finished() does not follow.
    bool stopFromOutside(int deadlineMs);
    void stopFromWithin(); // in the server's own thread
    // Any thread; does not wait.
    void call(int modem, const QStringList& allowedPorts = {});
    void callAs(QString name, QByteArray data);
    void hangUp(QString name, int connectionId);

    bool waitForFree(int ports, int deadlineMs = defaultDeadlineMs) const;
    // Whether workers had to be ended by force.
    bool anyWasTerminated() const;

    PortBoard board;
    CountingJournal journal;
    Account account;
    sim::Exchange exchange;
    std::atomic<int> connected{0};
    std::atomic<int> notConnected{0};
    std::atomic<int> disconnected{0};
    std::unique_ptr<TestedServer> server;

private:
    const int m_ports;
    QStringList m_paths;
    QSemaphore m_finished;
    QThread m_thread;
};

} // namespace rig
