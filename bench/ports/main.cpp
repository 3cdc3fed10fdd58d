// Measures ports in number: what idle ones cost, how fast calls come and go. JSON on the
// standard output, progress on the other.
#include <atomic>
#include <cstdio>
#include <thread>
#include <vector>

#include <poll.h>
#include <time.h>

#include <QCommandLineParser>
#include <QCoreApplication>
#include <QElapsedTimer>
#include <QFile>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include "bench/ports/threadtimes.h"
#include "sim/exchange.h"
#include "tests/stress/resources.h"
#include "tests/stress/stressbed.h"
#include "tests/support/deadline.h"
#include "tests/support/freshroot.h"
#include "tests/support/testroot.h"

using testsupport::StressBed;
using testsupport::waitFor;

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
    std::exit(1);
}

void passTime(int ms)
{
    QElapsedTimer timer;
    timer.start();
    (void)waitFor([&] { return timer.elapsed() >= ms; }, ms + 1);
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
    QFile::remove(testsupport::installRoot() + QStringLiteral("/settings/settings.ini"));
}

double percentOfCore(qint64 usedNs, int ms, int count)
{
    return 100.0 * static_cast<double>(usedNs) / (ms * nsPerMs) / count;
}

// The least that a thread can pay which looks at its port every 10 ms.
double bareThreadPercent(const QString& path, int ms)
{
    QFile device(path);
    if (!device.open(QIODevice::ReadWrite | QIODevice::Unbuffered))
        fail(QStringLiteral("%1: %2").arg(path, device.errorString()));
    const ThreadTimes others = threadTimesNs();
    std::atomic<bool> isOver{false};
    std::thread thread([&] {
        while (!isOver) {
            const timespec pause{0, 10 * 1000 * 1000};
            nanosleep(&pause, nullptr);
            pollfd look{device.handle(), POLLIN, 0};
            poll(&look, 1, 0);
        }
    });
    const ThreadTimes then = threadTimesNs();
    passTime(ms);
    const qint64 used = usedNs(then, threadTimesNs(), others);
    isOver = true;
    thread.join();
    return percentOfCore(used, ms, 1);
}

QJsonObject measureIdle(int ports, const Lengths& lengths)
{
    tell(QStringLiteral("%1 idle ports").arg(ports));
    StressBed bed(ports, line(), [] { return testsupport::SessionPlan(); });
    useDefaultSettings();
    bed.inServer([] {}); // its event loop runs
    const double bare = bareThreadPercent(bed.port(1), lengths.idleMs / 2);
    const testsupport::Resources before = testsupport::currentResources();
    const ThreadTimes others = threadTimesNs();
    QElapsedTimer timer;
    timer.start();
    bed.start();
    if (!bed.waitForFree(ports, deadlineMs))
        fail(QStringLiteral("the ports do not become free"));
    const qint64 startMs = timer.elapsed();
    passTime(1000); // what starting leaves to do
    const ThreadTimes then = threadTimesNs();
    passTime(lengths.idleMs);
    const qint64 used = usedNs(then, threadTimesNs(), others);
    const testsupport::Resources idle = testsupport::currentResources();
    timer.restart();
    bed.stopFromWithin();
    const qint64 stopMs = timer.elapsed();
    return {{QStringLiteral("ports"), ports},
            {QStringLiteral("cpuPercentPerPort"), percentOfCore(used, lengths.idleMs, ports)},
            {QStringLiteral("bareThreadCpuPercent"), bare},
            {QStringLiteral("heapKiBPerPort"), static_cast<double>(idle.heapBytes - before.heapBytes) / 1024 / ports},
            {QStringLiteral("residentKiBPerPort"), static_cast<double>(idle.residentBytes - before.residentBytes) / 1024 / ports},
            {QStringLiteral("threadsPerPort"), static_cast<double>(idle.threads - before.threads) / ports},
            {QStringLiteral("descriptorsPerPort"), static_cast<double>(idle.descriptors - before.descriptors) / ports},
            {QStringLiteral("startMs"), static_cast<double>(startMs)},
            {QStringLiteral("stopMs"), static_cast<double>(stopMs)}};
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return values.at(values.size() / 2);
}

// Calls between two ports, one after another; medians.
QJsonObject measureCalls(const Lengths& lengths)
{
    tell(QStringLiteral("%1 calls").arg(lengths.calls));
    StressBed bed(2, line(), [] { return testsupport::SessionPlan(); });
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
    if (!testsupport::isInFreshRoot())
        return testsupport::runInFreshRoot(argv);
    QCoreApplication application(argc, argv);
    QCommandLineParser parser;
    parser.setApplicationDescription(QStringLiteral("Measures what ports cost a process, idle and in calls. Prints JSON."));
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
    std::fputs(QJsonDocument(result).toJson().constData(), stdout);
    return 0;
}
