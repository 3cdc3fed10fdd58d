#include "host/channel/sessionprotocol.h"
#include "rig/deadline.h"
#include "rig/host/memorystore.h"
#include "rig/testroot.h"
#include "tests/host/pipechannel.h"
#include "tests/host/sessionpair.h"

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QThread>
#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using namespace host;
using namespace hosttest;
using namespace rig;
using rig::waitFor;

namespace {

struct End
{
    // called: whom it calls; empty when it is called.
    explicit End(const QString& name, const QString& called, int offered = 1024)
    {
        context = std::make_shared<SessionContext>();
        context->settings.abonentName = name;
        context->settings.identity = testKey(called.isEmpty() ? 2 : 1);
        directory.names[testKey(1)->publicKey()] = QStringLiteral("Alice");
        directory.names[testKey(2)->publicKey()] = QStringLiteral("Боб");
        context->directory = &directory;
        context->store = store.forSessions();
        context->report = [this](const SessionReport& report) { reports.push_back(report); };
        channel = new PipeChannel(offered); // owned by the protocol
        protocol.reset(SessionProtocolFactory(context).createProtocol(channel));
        protocol->remoteAbonentName = called; // as the port's worker presets it
        protocol->channelName = QStringLiteral("line ") + name;
        finished = std::make_unique<QSignalSpy>(protocol.get(), &CAbstractProtocol::finished);
        named = std::make_unique<QSignalSpy>(protocol.get(), &CAbstractProtocol::remoteAbonentNameChanged);
    }

    int reportCount(SessionReport::Kind kind) const
    {
        int count = 0;
        for (const SessionReport& report : reports)
            count += report.kind == kind ? 1 : 0;
        return count;
    }

    MemoryStore store;
    TestDirectory directory;
    std::shared_ptr<SessionContext> context;
    std::vector<SessionReport> reports;
    PipeChannel* channel;
    std::unique_ptr<CAbstractProtocol> protocol;
    std::unique_ptr<QSignalSpy> finished;
    std::unique_ptr<QSignalSpy> named;
};

struct Line
{
    explicit Line(int offered = 1024)
        : a(QStringLiteral("Alice"), QStringLiteral("Боб"), offered), b(QStringLiteral("Боб"), QString(), offered)
    {
        PipeChannel::join(a.channel, b.channel);
    }

    void start()
    {
        a.protocol->start();
        b.protocol->start();
    }
    bool bothFinished() const { return a.finished->count() > 0 && b.finished->count() > 0; }

    End a;
    End b;
};

} // namespace

TEST(SessionProtocol, ExchangesAndFinishes)
{
    Line line;
    const QByteArray content = randomBytes(100000, rig::seed());
    line.a.store.queue(QStringLiteral("f"), content);
    line.b.store.queue(QStringLiteral("g"), "g");
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.a.finished->count() > 0; }));
    EXPECT_EQ(line.b.finished->count(), 0) << "the side that agreed waits for the other to hang up";
    line.a.protocol.reset();
    ASSERT_TRUE(waitFor([&] { return line.b.finished->count() > 0; }));
    ASSERT_EQ(line.b.store.inbox.size(), 1u);
    EXPECT_TRUE(line.b.store.inbox[0].content == content);
    EXPECT_EQ(line.a.store.inbox.size(), 1u);
    EXPECT_TRUE(line.b.protocol->wasUseful);
    EXPECT_EQ(line.a.finished->count(), 1);
    EXPECT_EQ(line.b.finished->count(), 1);
    ASSERT_EQ(line.b.named->count(), 1);
    EXPECT_EQ(line.b.named->first().first().toString(), QStringLiteral("Alice"));
    EXPECT_EQ(line.a.named->first().first().toString(), QStringLiteral("Боб"));
    EXPECT_EQ(line.b.protocol->remoteAbonentName, QStringLiteral("Alice"));
    EXPECT_EQ(line.b.protocol->remoteAbonentNameFiltered, QStringLiteral("alice"));
    EXPECT_EQ(line.a.reportCount(SessionReport::Kind::Begun), 1);
    EXPECT_EQ(line.a.reportCount(SessionReport::Kind::Ended), 1);
    EXPECT_EQ(line.a.reports.back().end, SessionEnd::Agreed);
    EXPECT_TRUE(line.a.reports.back().isProved);
    EXPECT_EQ(line.a.reports.back().channelName, QStringLiteral("line Alice"));
}

TEST(SessionProtocol, BlocksFillPacketsExactly)
{
    Line line(512);
    line.a.store.queue(QStringLiteral("f"), randomBytes(100000, 1));
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.a.finished->count() > 0; }));
    int full = 0;
    for (const QByteArray& block : line.a.channel->written) {
        EXPECT_LE(block.size(), 502);
        full += block.size() == 502 ? 1 : 0;
    }
    EXPECT_GE(full, 190);
}

TEST(SessionProtocol, ABlockIsNoLargerThanWhatTheLinkTakesAtOnce)
{
    Line line(4096);
    line.a.store.queue(QStringLiteral("f"), randomBytes(100000, 1));
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.a.finished->count() > 0; }));
    for (const QByteArray& block : line.a.channel->written)
        EXPECT_LE(block.size(), 1014) << "the link would cut the rest into a tiny packet";
}

TEST(SessionProtocol, TinyPacketsWork)
{
    Line line(11);
    line.a.store.queue(QStringLiteral("f"), "some content");
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.a.finished->count() > 0; }));
    EXPECT_EQ(line.b.store.inbox.size(), 1u);
}

TEST(SessionProtocol, AUselessSessionSaysSo)
{
    Line line;
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.a.finished->count() > 0; }));
    EXPECT_FALSE(line.a.protocol->wasUseful);
}

TEST(SessionProtocol, LostCarrierEndsItAndWhatCameIsKept)
{
    Line line;
    line.a.store.queue(QStringLiteral("f"), "content");
    line.a.protocol->start();
    line.b.protocol->start();
    // A has its message out; B hangs in the air with everything unread.
    ASSERT_TRUE(waitFor([&] { return !line.b.store.inbox.empty() || line.b.channel->incoming.size() > 100; }));
    line.b.channel->isUp = false;
    ASSERT_TRUE(waitFor([&] { return line.bothFinished(); }));
    EXPECT_EQ(line.b.store.inbox.size(), 1u);
}

TEST(SessionProtocol, StopFromAnotherThread)
{
    Line line;
    line.a.context->settings.closingMs = 50;
    line.a.protocol->keepAlive = true;
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.a.named->count() > 0; }));
    std::thread stopper([&] { line.a.protocol->stop(); });
    stopper.join();
    ASSERT_TRUE(waitFor([&] { return line.bothFinished(); }));
    EXPECT_EQ(line.a.reports.back().reason, QStringLiteral("stopped"));
    EXPECT_EQ(line.b.reports.back().reason, QStringLiteral("the other side ended the session: stopped"));
}

TEST(SessionProtocol, StopBeforeAnythingWasSaid)
{
    End alone(QStringLiteral("Alice"), QStringLiteral("Боб"));
    PipeChannel peer;
    PipeChannel::join(alone.channel, &peer);
    alone.protocol->start();
    alone.protocol->stop();
    EXPECT_TRUE(waitFor([&] { return alone.finished->count() > 0; }));
    alone.protocol.reset();
}

TEST(SessionProtocol, KeepAliveKeeps)
{
    // Beside it one that nothing keeps, in the same thread: however slowly both go, a pass of
    // the one is a pass of the other.
    Line kept;
    Line usual;
    kept.b.protocol->keepAlive = true;
    kept.start();
    usual.start();
    ASSERT_TRUE(waitFor([&] { return usual.a.finished->count() > 0; }));
    const int readsOfUsual = usual.a.channel->reads;
    ASSERT_TRUE(waitFor([&] {
        return kept.a.channel->reads > 3 * readsOfUsual || kept.a.finished->count() > 0 || kept.b.finished->count() > 0;
    }));
    EXPECT_EQ(kept.b.named->count(), 1);
    EXPECT_FALSE(kept.a.finished->count() > 0 || kept.b.finished->count() > 0);
    __atomic_store_n(&kept.b.protocol->keepAlive, false, __ATOMIC_RELAXED);
    EXPECT_TRUE(waitFor([&] { return kept.a.finished->count() > 0; }));
}

// The port worker says so only when the host has heard of the connection.
TEST(SessionProtocol, AHostThatKeepsConnectionsKeepsThemFromTheFirstMoment)
{
    Line line;
    line.b.context->keepsConnections = true;
    EXPECT_FALSE(line.b.protocol->keepAlive);
    const std::unique_ptr<CAbstractProtocol> made(SessionProtocolFactory(line.b.context).createProtocol(nullptr));
    EXPECT_TRUE(made->keepAlive);
}

TEST(SessionProtocol, PausesBetweenPasses)
{
    Line line;
    line.b.protocol->keepAlive = true;
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.b.named->count() > 0; }));
    const int reads = line.a.channel->reads;
    QElapsedTimer timer;
    timer.start();
    ASSERT_TRUE(waitFor([&] { return line.a.channel->reads >= reads + 20; }));
    // The least pause is 5 ms, whichever side sends.
    EXPECT_GE(timer.elapsed(), 19 * 5);
}

TEST(SessionProtocol, DeletedWhileItRuns)
{
    Line line;
    line.a.store.queue(QStringLiteral("f"), randomBytes(1000000, 1));
    line.start();
    ASSERT_TRUE(waitFor([&] { return line.a.named->count() > 0; }));
    line.a.protocol.reset();
    EXPECT_TRUE(line.a.store.hasUnclaimed(provedPeer(QString()))) << "its messages are free again";
}

// ---- sleeping ----

namespace {

// An End in a thread of its own, as a port's worker runs it. Its peer is in the test's thread and
// says nothing; what it writes is confirmed at once.
class SleepyEnd : public QThread
{
public:
    SleepyEnd()
    {
        start();
        while (!m_isReady)
            yieldCurrentThread();
    }
    ~SleepyEnd() override
    {
        quit();
        wait();
    }

    std::atomic<int> reads{0};
    std::atomic<bool> isOver{false};
    CAbstractProtocol* protocol = nullptr;

private:
    struct CountingChannel : CChannel
    {
        explicit CountingChannel(SleepyEnd* end) : m_end(end) { type = 2; }
        void disconnectFromAbonent() override {}
        bool isConnected() override { return true; }
        void write(const QByteArray& data) override { m_end->m_confirmedBytes += data.size(); }
        QByteArray read(int) override
        {
            ++m_end->reads;
            return QByteArray();
        }
        int idealBlockSize() override { return 1024; }

        SleepyEnd* m_end; // not owned
    };

    void run() override
    {
        MemoryStore store;
        TestDirectory directory;
        const auto context = std::make_shared<SessionContext>();
        context->settings.identity = testKey(1);
        context->settings.heartbeatMs = 3600 * 1000;
        context->settings.silenceMs = context->settings.openingMs = context->settings.uselessMs = 3600 * 1000;
        context->settings.closingMs = 0;
        context->directory = &directory;
        context->store = store.forSessions();
        context->report = [](const SessionReport&) {};
        context->sleepRules = [this](const QString& channelName) {
            EXPECT_EQ(channelName, QStringLiteral("port"));
            return SleepRules{3600 * 1000, 1, [this] { return m_confirmedBytes; }};
        };
        const std::unique_ptr<CAbstractProtocol> made(
            SessionProtocolFactory(context).createProtocol(new CountingChannel(this)));
        made->remoteAbonentName = QStringLiteral("Боб");
        made->channelName = QStringLiteral("port");
        connect(made.get(), &CAbstractProtocol::finished, [this] { isOver = true; });
        protocol = made.get();
        made->start();
        m_isReady = true;
        exec();
    }

    std::atomic<bool> m_isReady{false};
    qint64 m_confirmedBytes = 0;
};

} // namespace

// Without a sleep a pass follows the last one after 10 ms.
TEST(SessionProtocol, SleepsWhileThereIsNothingToDoAndAStopWakesIt)
{
    SleepyEnd end;
    int readsBefore = -1;
    QElapsedTimer quiet;
    ASSERT_TRUE(waitFor([&] {
        if (end.reads != readsBefore) {
            readsBefore = end.reads;
            quiet.start();
        }
        return readsBefore > 0 && quiet.elapsed() > 1000;
    })) << end.reads;
    end.protocol->stop();
    EXPECT_TRUE(waitFor([&] { return end.isOver.load(); }));
}
