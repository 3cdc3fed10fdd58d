#include "tests/stress/watchdog.h"

#include <QDir>
#include <QFile>
#include <QStringList>

#include <chrono>
#include <cstdio>
#include <cstdlib>

namespace testsupport {

namespace {

constexpr int lookIntervalMs = 20;

qint64 nowMs()
{
    using namespace std::chrono;
    return duration_cast<milliseconds>(steady_clock::now().time_since_epoch()).count();
}

QString firstLine(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readLine()).trimmed() : QString();
}

// What the kernel says that each thread does: name, run state and the call it is in.
QStringList kernelLines()
{
    QStringList lines;
    for (const QString& id : QDir(QStringLiteral("/proc/self/task")).entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        const QString directory = QStringLiteral("/proc/self/task/%1/").arg(id);
        const QString stat = firstLine(directory + QStringLiteral("stat"));
        lines.append(QStringLiteral("thread %1 %2, state %3, system call %4")
                         .arg(id, firstLine(directory + QStringLiteral("comm")),
                              stat.mid(stat.lastIndexOf(QLatin1Char(')')) + 2, 1),
                              firstLine(directory + QStringLiteral("syscall")).section(QLatin1Char(' '), 0, 3)));
    }
    return lines;
}

void printAndAbort(const QString& report)
{
    std::fprintf(stderr, "%s\n", qPrintable(report));
    std::abort();
}

} // namespace

void Watchdog::Watched::at(const char* step)
{
    m_step = step;
    m_sinceMs = nowMs();
}

Watchdog::Watchdog(int limitMs, std::function<QStringList()> portStates, Bark bark)
    : m_limitMs(limitMs), m_portStates(std::move(portStates)), m_bark(bark ? std::move(bark) : Bark(printAndAbort))
{
}

Watchdog::~Watchdog()
{
    end();
}

Watchdog::Watched& Watchdog::watch(const char* name)
{
    m_watched.push_back(std::make_unique<Watched>(name));
    return *m_watched.back();
}

void Watchdog::begin()
{
    m_thread = std::thread([this] { run(); });
}

void Watchdog::end()
{
    m_stop = true;
    if (m_thread.joinable())
        m_thread.join();
}

void Watchdog::run()
{
    while (!m_stop) {
        if (const Watched* who = stuck()) {
            m_bark(report(*who));
            return;
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(lookIntervalMs));
    }
}

const Watchdog::Watched* Watchdog::stuck() const
{
    for (const auto& watched : m_watched) {
        const qint64 sinceMs = watched->m_sinceMs;
        if (sinceMs >= 0 && nowMs() - sinceMs > m_limitMs)
            return watched.get();
    }
    return nullptr;
}

QString Watchdog::report(const Watched& who) const
{
    QStringList lines{QStringLiteral("%1 stands still in step '%2'")
                          .arg(QString::fromStdString(who.m_name), QLatin1String(who.m_step))};
    for (const auto& watched : m_watched) {
        const qint64 sinceMs = watched->m_sinceMs;
        lines.append(QString::fromStdString(watched->m_name) +
                     (sinceMs < 0 ? QStringLiteral(": done")
                                  : QStringLiteral(": in step '%1' for %2 ms")
                                        .arg(QLatin1String(watched->m_step), QString::number(nowMs() - sinceMs))));
    }
    return (lines + m_portStates() + kernelLines()).join(QLatin1Char('\n'));
}

} // namespace testsupport
