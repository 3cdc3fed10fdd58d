// Whether another thread waits, found out without waiting for a time.
#pragma once

#include "rig/deadline.h"

#include <QByteArray>
#include <QFile>

#include <atomic>
#include <functional>
#include <sys/syscall.h>
#include <thread>
#include <unistd.h>

namespace testsupport {

// Runs work in a thread of its own and tells whether it has come to its end or sleeps, as one
// does that waits for a lock. work must not sleep for another reason for as long as settledLooks.
class ObservedThread
{
public:
    explicit ObservedThread(std::function<void()> work)
        : m_thread([this, work = std::move(work)] {
              m_id = pid_t(syscall(SYS_gettid));
              work();
              m_isOver = true;
          })
    {
    }
    ~ObservedThread() { join(); }
    ObservedThread(const ObservedThread&) = delete;
    ObservedThread& operator=(const ObservedThread&) = delete;

    // True once the thread sleeps for good, false if it ends instead.
    bool sleepsBeforeItsEnd()
    {
        constexpr int settledLooks = 20; // a millisecond apart, in which it has not run
        int looks = 0;
        QByteArray before;
        rig::waitFor([&] {
            const QByteArray state = m_id != 0 ? stateOf(m_id) : QByteArray();
            looks = !state.isEmpty() && state == before ? looks + 1 : 0;
            before = state;
            return m_isOver || looks >= settledLooks;
        });
        return !m_isOver;
    }
    void join()
    {
        if (m_thread.joinable())
            m_thread.join();
    }

private:
    // How often the sleeping thread has gone to sleep; empty while it runs.
    static QByteArray stateOf(pid_t thread)
    {
        QFile file(QStringLiteral("/proc/self/task/%1/status").arg(thread));
        if (!file.open(QIODevice::ReadOnly))
            return {};
        const QByteArray status = file.readAll();
        if (!status.contains("State:\tS"))
            return {};
        return status.mid(status.indexOf("voluntary_ctxt_switches"));
    }

    std::atomic<pid_t> m_id{0};
    std::atomic<bool> m_isOver{false};
    std::thread m_thread; // the last: it uses the others
};

} // namespace testsupport
