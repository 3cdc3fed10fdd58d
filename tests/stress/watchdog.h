// Notices a thread that stands still, and tells where every thread and every port is.
#pragma once

#include <QString>

#include <atomic>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

namespace testsupport {

class Watchdog
{
public:
    // One watched thread; it says itself where it is.
    class Watched
    {
    public:
        explicit Watched(const char* name) : m_name(name) { at("start"); }
        // step: a literal. Any step is a sign of life, the same one again too.
        void at(const char* step);
        // Ends the watch on this thread.
        void done() { m_sinceMs = -1; }

    private:
        friend class Watchdog;

        const std::string m_name;
        std::atomic<const char*> m_step{nullptr};
        std::atomic<qint64> m_sinceMs{0};
    };

    // Called once, in the watchdog's thread, with the whole report. The default prints it
    // and aborts the process, since a test that waits for the thread would never end.
    using Bark = std::function<void(const QString& report)>;

    // portStates: what else belongs into the report; must not wait for anything that can hang.
    Watchdog(int limitMs, std::function<QStringList()> portStates, Bark bark = {});
    ~Watchdog();

    // Before begin(). Valid as long as the watchdog.
    Watched& watch(const char* name);
    void begin();
    // Ends its thread; nothing is noticed any more.
    void end();

private:
    void run();
    const Watched* stuck() const;
    QString report(const Watched& who) const;

    const int m_limitMs;
    const std::function<QStringList()> m_portStates;
    const Bark m_bark;
    std::vector<std::unique_ptr<Watched>> m_watched;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

} // namespace testsupport
