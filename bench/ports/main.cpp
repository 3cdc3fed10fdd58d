// Measures many ports: what idle ones cost, how fast calls begin and end. JSON on standard output,
// progress on standard error.
#include "bench/ports/threadtimes.h"
#include "rig/deadline.h"
#include "rig/freshroot.h"
#include "rig/server/resources.h"
#include "rig/server/stressbed.h"
#include "rig/testroot.h"
#include "sim/exchange/exchange.h"

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <poll.h>
#include <thread>
#include <time.h>
#include <vector>

using rig::StressBed;
using rig::waitFor;

namespace {

constexpr double nsPerMs = 1e6;
constexpr int deadlineMs = 60000;

struct Lengths
{
    int idleMs = 10000;
    int calls = 10;
};

void tell(const QString& text)
{
    std::fprintf(stderr, "%s\n", qPrintable(text));
}

[[noreturn]] void fail(const QString& text)
{
    tell(QStringLiteral("error: ") + text);
    std::_Exit(1); // threads still run
}

// How long it took, in ns: on a busy machine a little longer.
qint64 passTime(int ms)
{
    QElapsedTimer timer;
    timer.start();
    (void)waitFor([&] { return timer.elapsed() >= ms; }, ms + 1);
    return timer.nsecsElapsed();
}

ThreadTimes threadTimes()
{
    const ThreadTimes times = threadTimesNs();
    if (times.empty())
        fail(QStringLiteral("this kernel does not tell the processor time of threads"));
    return times;
}

sim::LineSettings line()
{
    sim::LineSettings settings;
    settings.rateForward = settings.rateBackward = 115200;
    return settings;
}

// The port's usual intervals: the bed shortens them for its tests.
void useDefaultSettings()
{
    QFile settings(rig::installRoot() + QStringLiteral("/settings/settings.ini"));
    if (settings.exists() && !settings.remove())
        fail(QStringLiteral("cannot remove %1: %2").arg(settings.fileName(), settings.errorString()));
}

double percentOfCore(qint64 usedNs, qint64 passedNs, int count)
{
    return 100.0 * static_cast<double>(usedNs) / static_cast<double>(passedNs) / count;
}

// The minimum for a thread that looks at its port every 10 ms.
double bareThreadPercent(const QString& path, int ms)
{
    QFile device(path);
    if (!device.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        fail(QStringLiteral("%1: %2").arg(path, device.errorString()));
    const ThreadTimes others = threadTimes();
    std::atomic<bool> isOver{false};
    std::thread thread([&] {
        while (!isOver) {
            const timespec pause{0, 10 * 1000 * 1000};
            nanosleep(&pause, nullptr);
            pollfd look{device.handle(), POLLIN, 0};
            poll(&look, 1, 0);
        }
    });
    const ThreadTimes then = threadTimes();
    const qint64 passedNs = passTime(ms);
    const qint64 used = usedNs(then, threadTimes(), others);
    isOver = true;
    thread.join();
    return percentOfCore(used, passedNs, 1);
}

QJsonObject measureIdle(int ports, const Lengths& lengths)
{
    tell(QStringLiteral("%1 idle ports").arg(ports));
    StressBed bed(ports, line(), [] { return rig::SessionPlan(); });
    useDefaultSettings();
    bed.inServer([] {}); // its event loop runs
    const double bare = bareThreadPercent(bed.port(1), lengths.idleMs / 2);
    const rig::Resources before = rig::currentResources();
    const ThreadTimes others = threadTimes();
    QElapsedTimer timer;
    timer.start();
    bed.start();
    if (!bed.waitForFree(ports, deadlineMs))
        fail(QStringLiteral("the ports do not become free"));
    const qint64 startMs = timer.elapsed();
    passTime(1000); // what starting leaves to do
    const ThreadTimes then = threadTimes();
    const qint64 passedNs = passTime(lengths.idleMs);
    const qint64 used = usedNs(then, threadTimes(), others);
    const rig::Resources idle = rig::currentResources();
    timer.restart();
    bed.stopFromWithin();
    const qint64 stopMs = timer.elapsed();
    return {{QStringLiteral("ports"), ports},
            {QStringLiteral("cpuPercentPerPort"), percentOfCore(used, passedNs, ports)},
            {QStringLiteral("bareThreadCpuPercent"), bare},
            {QStringLiteral("heapKiBPerPort"), static_cast<double>(idle.heapBytes - before.heapBytes) / 1024 / ports},
            {QStringLiteral("residentKiBPerPort"),
             static_cast<double>(idle.residentBytes - before.residentBytes) / 1024 / ports},
            {QStringLiteral("threadsPerPort"), static_cast<double>(idle.threads - before.threads) / ports},
            {QStringLiteral("descriptorsPerPort"), static_cast<double>(idle.descriptors - before.descriptors) / ports},
            {QStringLiteral("startMs"), static_cast<double>(startMs)},
            {QStringLiteral("stopMs"), static_cast<double>(stopMs)}};
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return (values.at((values.size() - 1) / 2) + values.at(values.size() / 2)) / 2;
}

// Calls between two ports, one after another; medians.
QJsonObject measureCalls(const Lengths& lengths)
{
    tell(QStringLiteral("%1 calls").arg(lengths.calls));
    StressBed bed(2, line(), [] { return rig::SessionPlan(); });
    useDefaultSettings();
    bed.start();
    std::vector<double> toDialMs;
    std::vector<double> toFirstByteMs;
    std::vector<double> toFreeMs;
    for (int call = 0; call < lengths.calls; ++call) {
        if (!bed.waitForFree(2, deadlineMs))
            fail(QStringLiteral("the ports do not become free"));
        const int sessions = bed.account.figures().withPeer;
        QElapsedTimer timer;
        timer.start();
        bed.call(2, {bed.port(1)});
        const auto isDialling = [&] { return bed.exchange.status(1).state == sim::ModemState::Dialling; };
        if (!waitFor(isDialling, deadlineMs))
            fail(QStringLiteral("the modem does not dial"));
        toDialMs.push_back(static_cast<double>(timer.nsecsElapsed()) / nsPerMs);
        if (!waitFor([&] { return bed.exchange.status(1).state == sim::ModemState::Data; }, deadlineMs))
            fail(QStringLiteral("no connection"));
        timer.restart();
        if (!waitFor([&] { return bed.account.figures().withPeer > sessions; }, deadlineMs))
            fail(QStringLiteral("no byte of the peer"));
        toFirstByteMs.push_back(static_cast<double>(timer.nsecsElapsed()) / nsPerMs);
        timer.restart();
        bed.hangUp(bed.partyAt(2), -1);
        if (!bed.waitForFree(2, deadlineMs))
            fail(QStringLiteral("the ports do not become free again"));
        toFreeMs.push_back(static_cast<double>(timer.nsecsElapsed()) / nsPerMs);
    }
    return {{QStringLiteral("callToDialCommandMs"), median(toDialMs)},
            {QStringLiteral("connectToFirstByteMs"), median(toFirstByteMs)},
            {QStringLiteral("hangUpToFreeMs"), median(toFreeMs)}};
}

} // namespace

int main(int argc, char** argv)
{
    if (!rig::isInFreshRoot())
        return rig::runInFreshRoot(argv);
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(
        QStringLiteral("Measures what ports cost a process, idle and in calls. Prints JSON."));
    parser.addHelpOption();
    const QCommandLineOption quick(QStringLiteral("quick"), QStringLiteral("Shorter, fewer ports."));
    parser.addOption(quick);
    parser.process(application);

    Lengths lengths;
    QList<int> counts{1, 16, 64, 256};
    if (parser.isSet(quick)) {
        lengths = {2000, 3};
        counts = {1, 16};
    }
    QJsonArray idle;
    for (const int ports : counts)
        idle.append(measureIdle(ports, lengths));
    const QJsonObject result{{QStringLiteral("idle"), idle}, {QStringLiteral("calls"), measureCalls(lengths)}};
    return std::fputs(QJsonDocument(result).toJson().constData(), stdout) >= 0 && std::fflush(stdout) == 0 ? 0 : 1;
}
