// Everything at once: 64 ports that call one another while several threads hang up, keep
// alive, poll, change settings, break modems, and stop and start the server, at random.
// STRESS_SECONDS=60 makes the few seconds of a usual run a minute.
#include "rig/deadline.h"
#include "rig/server/resources.h"
#include "rig/server/stressbed.h"
#include "rig/testroot.h"
#include "tests/stress/watchdog.h"

#include <QElapsedTimer>
#include <QMutex>
#include <QMutexLocker>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <string>
#include <thread>

using rig::currentResources;
using rig::Resources;
using rig::SessionPlan;
using rig::StressBed;
using rig::waitFor;
using testsupport::Watchdog;

namespace {

constexpr int ports = 64;
constexpr int usualSeconds = 4;
constexpr int standstillMs = 90000; // longer than the server may take to stop
constexpr int recoveryMs = 60000;

int stressSeconds()
{
    bool isNumber = false;
    const int seconds = qEnvironmentVariableIntValue("STRESS_SECONDS", &isNumber);
    return isNumber && seconds > 0 ? seconds : usualSeconds;
}

// One thread's own randomness.
class Dice
{
public:
    explicit Dice(unsigned salt) : m_engine(rig::seed() * 1009u + salt) {}
    int below(int limit) { return static_cast<int>(m_engine() % static_cast<unsigned>(limit)); }
    int between(int least, int most) { return least + below(most - least + 1); }
    bool chance(int percent) { return below(100) < percent; }

private:
    std::mt19937 m_engine;
};

// For the workers' threads, which all draw from it.
class SharedDice
{
public:
    std::optional<SessionPlan> plan()
    {
        QMutexLocker locker(&m_mutex);
        if (m_dice.chance(3))
            return std::nullopt;
        SessionPlan plan;
        plan.lifetimeMs = m_dice.chance(20) && !m_isWindingUp ? -1 : m_dice.between(50, 4000);
        plan.periodMs = m_dice.between(5, 50);
        plan.bytesToSend = m_dice.chance(30) ? m_dice.below(3000) : -1;
        plan.tellsName = !m_dice.chance(10);
        plan.endsInStart = m_dice.chance(3);
        plan.endsWithinStop = m_dice.chance(30);
        plan.hangsUp = m_dice.chance(30);
        return plan;
    }

    // From now on every session ends by itself.
    void windUp() { m_isWindingUp = true; }

private:
    QMutex m_mutex;
    Dice m_dice{1};
    std::atomic<bool> m_isWindingUp{false};
};

struct Counts
{
    std::atomic<int> calls{0};
    std::atomic<int> hangups{0};
    std::atomic<int> keptAlive{0};
    std::atomic<int> polls{0};
    std::atomic<int> settings{0};
    std::atomic<int> restarts{0};
    std::atomic<int> faults{0};
    std::atomic<qint64> longestStopMs{0};
};

class Threads : public testing::Test
{
protected:
    void TearDown() override { endThreads(); }

    void endThreads()
    {
        ending = true;
        begun = true;
        for (std::thread& thread : threads)
            thread.join();
        threads.clear();
    }

    void pause(Dice& dice, int mostMs) const
    {
        const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(dice.between(0, mostMs));
        while (!ending && std::chrono::steady_clock::now() < until)
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }

    // Starts a thread that does step again and again until the end.
    void run(const char* name, unsigned salt, int pauseMs, std::function<void(Dice&, Watchdog::Watched&)> step)
    {
        Watchdog::Watched& watched = dog.watch(name);
        threads.emplace_back([this, salt, pauseMs, step = std::move(step), &watched] {
            Dice dice(salt);
            while (!begun)
                std::this_thread::yield();
            while (!ending) {
                step(dice, watched);
                watched.at("pausing");
                pause(dice, pauseMs);
            }
            watched.done();
        });
    }

    void callSomebody(Dice& dice);
    void hangUp(Dice& dice);
    void keepAlive(Dice& dice);
    void changeSettings(Dice& dice, Watchdog::Watched& watched);
    void restart(Dice& dice, Watchdog::Watched& watched);
    void breakAModem(Dice& dice, Watchdog::Watched& watched);

    bool allFree() { return bed.waitForFree(ports, recoveryMs); }
    std::string portLines() { return (bed.board.lines() + bed.account.lines()).join('\n').toStdString(); }
    // An ended thread goes, with what the allocator keeps for it, a moment after its end is known.
    bool waitForThreads(int count) const
    {
        return waitFor([&] { return currentResources().threads == count; });
    }
    // A first call and a stop, so that what is made once and kept is there.
    void oneCallAndAStop();
    void startThreads(int seconds);
    // Until the time is over, and there was traffic to watch; both threads are told to the dog.
    void watchTraffic(int seconds, Watchdog::Watched& host, Watchdog::Watched& serverThread);
    void expectPortsComeBack();
    void printCounts(const rig::Account::Figures& figures) const;
    // Each end is told of once, and nobody is connected that was not.
    void expectAccountsAgree(const rig::Account::Figures& figures);
    void expectNothingKept(const Resources& before);

    SharedDice plans;
    StressBed bed{ports, line(), [this] { return plans.plan(); }};
    Counts counts;
    std::atomic<bool> begun{false};
    std::atomic<bool> ending{false};
    Watchdog dog{standstillMs, [this] { return bed.board.lines() + bed.account.lines(); }};
    std::vector<std::thread> threads;

private:
    static sim::LineSettings line()
    {
        sim::LineSettings settings;
        settings.rateForward = settings.rateBackward = 38400;
        settings.delayMs = 5;
        settings.bitErrorRate = 1e-5;
        settings.seed = rig::seed();
        return settings;
    }
};

void Threads::callSomebody(Dice& dice)
{
    const int modem = dice.between(1, ports + 1); // one number that nobody has
    if (modem > ports)
        bed.callAs(QStringLiteral("Никто"), abonentBytes(QStringLiteral("5")));
    else if (dice.chance(5))
        bed.callAs(bed.partyAt(modem), QByteArray("damaged"));
    else
        bed.call(modem, dice.chance(30)
                            ? QStringList{bed.port(dice.between(1, ports)), bed.port(dice.between(1, ports))}
                            : QStringList());
    ++counts.calls;
}

void Threads::hangUp(Dice& dice)
{
    const int id = dice.chance(50) ? -1 : dice.between(0, ports);
    bed.hangUp(bed.partyAt(dice.between(1, ports)), id);
    ++counts.hangups;
}

void Threads::keepAlive(Dice& dice)
{
    bed.postToServer([this, id = dice.between(0, ports + 1)] { bed.server->keepAliveConnection(id); });
    ++counts.keptAlive;
}

void Threads::changeSettings(Dice& dice, Watchdog::Watched& watched)
{
    if (dice.chance(50)) {
        watched.at("editing settings.ini");
        bed.writeDetails(
            {QStringLiteral("[Debug]"),
             QStringLiteral("transportComPackets=%1").arg(QLatin1String(dice.chance(30) ? "true" : "false")),
             QStringLiteral("transportComAtCommands=%1").arg(QLatin1String(dice.chance(50) ? "true" : "false"))});
    } else {
        const int oneIn = dice.chance(40) ? dice.between(5, 60) : 0; // port switched off; 0: none
        bed.writePorts([oneIn](int modem) { return oneIn == 0 || modem % oneIn != 0; }, dice.between(40, 2048));
    }
    watched.at("waiting for settingsWasChanged()");
    bed.inServer([this] { bed.server->settingsWasChanged(); });
    ++counts.settings;
}

void Threads::restart(Dice& dice, Watchdog::Watched& watched)
{
    QElapsedTimer timer;
    timer.start();
    watched.at("stopping the server");
    if (dice.chance(70))
        EXPECT_TRUE(bed.stopFromOutside(standstillMs));
    else
        bed.stopFromWithin();
    counts.longestStopMs = qMax<qint64>(counts.longestStopMs, timer.elapsed());
    EXPECT_EQ(bed.board.count(), 0);
    EXPECT_EQ(bed.account.figures().running, 0);
    if (dice.chance(50)) {
        watched.at("changing settings of the stopped server");
        bed.writePorts();
    }
    watched.at("starting the server");
    bed.start();
    ++counts.restarts;
}

void Threads::breakAModem(Dice& dice, Watchdog::Watched& watched)
{
    const int modem = dice.between(1, ports);
    sim::Exchange& exchange = bed.exchange;
    watched.at("breaking a modem");
    switch (dice.below(7)) {
    case 0:
        exchange.unplug(modem);
        pause(dice, 300);
        exchange.plugIn(modem);
        break;
    case 1:
        exchange.setPowered(modem, false);
        pause(dice, 300);
        exchange.setPowered(modem, true);
        break;
    case 2:
        exchange.setSilent(modem, true);
        pause(dice, 300);
        exchange.setSilent(modem, false);
        break;
    case 3:
        exchange.setBusy(modem, true);
        pause(dice, 300);
        exchange.setBusy(modem, false);
        break;
    case 4: exchange.ring(modem, 1); break;
    case 5: exchange.say(modem, QStringLiteral("RING")); break;
    default: exchange.dropCarrier(modem); break;
    }
    ++counts.faults;
}

void Threads::oneCallAndAStop()
{
    bed.start();
    ASSERT_TRUE(allFree()) << portLines();
    bed.call(2); // from port 1, the first free one
    ASSERT_TRUE(waitFor([&] { return bed.account.figures().sessions > 0; }, recoveryMs)) << portLines();
    ASSERT_TRUE(bed.stopFromOutside(standstillMs));
}

void Threads::startThreads(int seconds)
{
    for (unsigned caller = 0; caller < 2; ++caller)
        run(caller == 0 ? "first caller" : "second caller", 10 + caller, 60,
            [this](Dice& dice, Watchdog::Watched&) { callSomebody(dice); });
    run("hanging up", 20, 100, [this](Dice& dice, Watchdog::Watched&) { hangUp(dice); });
    run("keeping alive", 21, 30, [this](Dice& dice, Watchdog::Watched&) { keepAlive(dice); });
    run("polling", 22, 2, [this](Dice&, Watchdog::Watched& watched) {
        watched.at("hasFreeChannel()");
        (void)bed.server->hasFreeChannel();
        watched.at("isHardwareOn()");
        (void)bed.server->isHardwareOn();
        ++counts.polls;
    });
    run("breaking modems", 23, 100, [this](Dice& dice, Watchdog::Watched& watched) { breakAModem(dice, watched); });
    run("administrator", 24, seconds > usualSeconds ? 4000 : 1500, [this](Dice& dice, Watchdog::Watched& watched) {
        if (dice.chance(60))
            changeSettings(dice, watched);
        else
            restart(dice, watched);
    });
}

void Threads::watchTraffic(int seconds, Watchdog::Watched& host, Watchdog::Watched& serverThread)
{
    QElapsedTimer timer;
    timer.start();
    // The server's thread may run what was posted later than this returns.
    const auto answered = std::make_shared<std::atomic<bool>>(true);
    // A short run on a busy machine goes on until there was traffic to watch.
    const auto wasBusy = [&] {
        const rig::Account::Figures figures = bed.account.figures();
        return figures.withPeer > 1 && figures.bytesReceived > 1000;
    };
    (void)waitFor(
        [&] {
            host.at("waiting for the end");
            if (answered->exchange(false)) {
                bed.postToServer([&serverThread, answered] {
                    serverThread.at("its event loop");
                    *answered = true;
                });
            }
            return HasFailure() || (timer.elapsed() >= seconds * 1000 && wasBusy());
        },
        seconds * 1000 + recoveryMs);
}

// Whatever happened to it: a port whose modem is well comes back by itself.
void Threads::expectPortsComeBack()
{
    bed.writePorts();
    bed.inServer([this] { bed.server->settingsWasChanged(); });
    for (int id = 1; id <= ports; ++id)
        bed.inServer([this, id] { bed.server->disconnectFromAbonent(QString(), id); });
    EXPECT_TRUE(allFree()) << portLines();
}

void Threads::printCounts(const rig::Account::Figures& figures) const
{
    std::printf("%d calls asked for, %d sessions, %d of them kept alive, %.2f MiB sent, %.2f MiB received\n"
                "%d hang-ups, %d keep-alives, %d polls, %d changes of settings, %d restarts (longest stop %lld ms), %d "
                "faults\n",
                int(counts.calls), figures.sessions, figures.kept, static_cast<double>(figures.bytesSent) / (1 << 20),
                static_cast<double>(figures.bytesReceived) / (1 << 20), int(counts.hangups), int(counts.keptAlive),
                int(counts.polls), int(counts.settings), int(counts.restarts),
                static_cast<long long>(counts.longestStopMs), int(counts.faults));
}

void Threads::expectAccountsAgree(const rig::Account::Figures& figures)
{
    EXPECT_GT(figures.withPeer, 1);
    EXPECT_GT(figures.bytesReceived, 1000);
    EXPECT_EQ((bed.account.violations() + bed.board.violations()).join('\n').toStdString(), "");
    EXPECT_FALSE(bed.anyWasTerminated());
    EXPECT_EQ(int(bed.disconnected), figures.ofKnownParty);
    EXPECT_LE(int(bed.connected), int(bed.disconnected));
    EXPECT_EQ(figures.running, 0);
    EXPECT_EQ(bed.board.count(), 0);
}

void Threads::expectNothingKept(const Resources& before)
{
    bed.account.forgetEnded();
    const Resources after = currentResources();
    EXPECT_EQ(after.descriptors, before.descriptors);
    const int endedCalls = bed.exchange.endedCalls().size();
    const qint64 grown = after.heapBytes - before.heapBytes;
    std::printf("%lld bytes of heap more, %d calls in the exchange's statistics\n", static_cast<long long>(grown),
                endedCalls);
    // The exchange keeps its statistics; a single round's workers would be more than the rest.
    EXPECT_LT(grown, endedCalls * 1024 + ports * 2048);
}

} // namespace

TEST_F(Threads, EverythingAtOnceFromSeveralThreads)
{
    const int seconds = stressSeconds();
    std::printf("seed %u, %d s\n", rig::seed(), seconds);
    const int threadsAlone = currentResources().threads;
    Watchdog::Watched& host = dog.watch("host");
    Watchdog::Watched& serverThread = dog.watch("server's thread");
    ASSERT_NO_FATAL_FAILURE(oneCallAndAStop());
    ASSERT_TRUE(waitForThreads(threadsAlone));
    const Resources before = currentResources();

    startThreads(seconds);
    bed.start();
    ASSERT_TRUE(allFree()) << portLines();
    dog.begin();
    begun = true;
    watchTraffic(seconds, host, serverThread);
    host.at("joining the threads");
    plans.windUp();
    endThreads();
    serverThread.done();

    host.at("waiting until every port is free");
    expectPortsComeBack();
    host.at("stopping");
    EXPECT_TRUE(bed.stopFromOutside(standstillMs));
    dog.end();

    const rig::Account::Figures figures = bed.account.figures();
    printCounts(figures);
    expectAccountsAgree(figures);
    EXPECT_TRUE(waitForThreads(threadsAlone)) << currentResources().threads << " threads, before " << threadsAlone;
    expectNothingKept(before);
}
