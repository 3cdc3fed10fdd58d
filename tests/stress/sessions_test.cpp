// Several lines between two installations, each end in a thread of its own, over one store at
// either side: lines that break at any byte, so that the same messages are taken up by one
// session while another still holds or stores them.
#include "host/session/session.h"
#include "rig/deadline.h"
#include "rig/host/sealedpeer.h"
#include "rig/testroot.h"
#include "tests/host/storetools.h"

#include <QElapsedTimer>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <map>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

using namespace host;
using namespace hosttest;

namespace {

constexpr int lines = 4;
constexpr int messages = 16; // each way
constexpr int largestBytes = 40000;
constexpr int pieceBytes = 1014;
constexpr int queueBytes = 8192;
constexpr int lookMs = 20;
constexpr int deadlineMs = 120000;
constexpr int brokenPercent = 60; // of the calls

// One way of a call. What is under way when it breaks is gone.
class Way
{
public:
    void open(int breaksAfterBytes)
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        m_bytes.clear();
        m_left = breaksAfterBytes;
        m_isOpen = true;
    }

    void close()
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        m_isOpen = false;
        m_changed.notify_all();
    }

    int room()
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        return m_isOpen ? queueBytes - m_bytes.size() : 0;
    }

    void write(const QByteArray& bytes)
    {
        std::lock_guard<std::mutex> locker(m_mutex);
        m_bytes += bytes.left(std::max(0, m_left));
        m_left -= bytes.size();
        m_changed.notify_all();
    }

    // Waits a little for bytes. Sets *isLost when none will come any more.
    QByteArray read(bool* isLost)
    {
        std::unique_lock<std::mutex> locker(m_mutex);
        m_changed.wait_for(locker, std::chrono::milliseconds(lookMs),
                           [this] { return !m_bytes.isEmpty() || !m_isOpen || m_left <= 0; });
        const QByteArray bytes = std::exchange(m_bytes, QByteArray());
        *isLost = bytes.isEmpty() && (!m_isOpen || m_left <= 0);
        return bytes;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    QByteArray m_bytes;
    int m_left = 0;
    bool m_isOpen = false;
};

struct Side
{
    explicit Side(const QString& ownName)
        : name(ownName), paths(pathsIn(ownName)), store(std::make_unique<MessageStore>(paths))
    {
        QString error;
        store->open(&error);
        EXPECT_EQ(error, QString());
    }

    const QString name;
    const StorePaths paths;
    std::unique_ptr<MessageStore> store;
    std::map<QString, QByteArray> sent; // file name, content
    std::atomic<int> delivered{0};
};

class TwoStores : public testing::Test
{
protected:
    TwoStores() : sides{Side(QStringLiteral("North")), Side(QStringLiteral("South"))} {}

    void queueMessages(int from)
    {
        std::mt19937 random(rig::seed() * 2 + static_cast<unsigned>(from));
        OutgoingQueue queue(sides[from].paths.output, sides[from].paths.tasks); // as another program has one
        for (int i = 0; i < messages; ++i) {
            QByteArray content(static_cast<int>(random() % largestBytes), Qt::Uninitialized);
            std::generate(content.begin(), content.end(), [&] { return static_cast<char>(random()); });
            const QString file = QStringLiteral("%1-%2").arg(sides[from].name).arg(i);
            const QString path = writeFile(rig::installRoot() + QStringLiteral("/sources/") + file, content);
            sides[from].sent[file] = content;
            ASSERT_EQ(queue.enqueue(sides[1 - from].name, path), QString());
            sides[from].store->queue().rescan();
        }
    }

    void runSession(int end, Way* in, Way* out)
    {
        SessionSettings settings;
        settings.abonentName = sides[end].name;
        settings.identity = rig::testKey(end);
        rig::TestDirectory directory;
        directory.everybodyElse = sides[1 - end].name;
        const SessionCall call{end == 0, end == 0 ? sides[1].name : QString()};
        settings.closingMs = 50;
        const auto now = [this] { return m_clock.elapsed(); };
        Session session(
            settings, call, &directory, sides[end].store->forSessions(),
            [this, end](const SessionEvent& event) {
                sides[end].delivered += event.kind == SessionEvent::Kind::FileDelivered;
            },
            now());
        while (!session.isFinished()) {
            bool isLost = false;
            session.receive(in->read(&isLost), now());
            session.advance(now());
            for (int room = out->room(); room > 0; room = out->room()) {
                const QByteArray bytes = session.takeOutput(std::min(room, pieceBytes), now());
                if (bytes.isEmpty())
                    break;
                out->write(bytes);
            }
            if (isLost)
                session.connectionLost();
        }
        out->close();
    }

    // Calls on one line, one after another, until all is delivered.
    void runLine(int line)
    {
        std::mt19937 random(rig::seed() * 100 + static_cast<unsigned>(line));
        Way ways[2];
        while (!isDone()) {
            for (Way& way : ways)
                way.open(random() % 100 < brokenPercent ? static_cast<int>(random() % (2 * largestBytes)) : 1 << 30);
            std::thread other([&] { runSession(1, &ways[0], &ways[1]); });
            runSession(0, &ways[1], &ways[0]);
            other.join();
            ++m_calls;
        }
    }

    bool isDone() const
    {
        return m_clock.elapsed() > deadlineMs ||
               std::all_of(sides.begin(), sides.end(), [](const Side& side) { return side.delivered >= messages; });
    }

    void expectAllReceived(int end)
    {
        std::map<QString, QByteArray> received;
        for (const ReceivedMessage& message : sides[end].store->inbox().messages()) {
            EXPECT_EQ(received.count(message.fileName), 0u) << message.fileName.toStdString() << " twice";
            EXPECT_EQ(message.abonent, sides[1 - end].name);
            received[message.fileName] = readAll(message.path);
        }
        EXPECT_EQ(received, sides[1 - end].sent);
        sides[end].store->queue().rescan();
        EXPECT_TRUE(sides[end].store->queue().messages().isEmpty());
    }

    std::array<Side, 2> sides;
    QElapsedTimer m_clock;
    std::atomic<int> m_calls{0};
};

} // namespace

TEST_F(TwoStores, deliverOnceOverSeveralLinesThatBreak)
{
    m_clock.start();
    std::vector<std::thread> threads;
    for (int end = 0; end < 2; ++end)
        threads.emplace_back([this, end] { queueMessages(end); });
    for (int line = 0; line < lines; ++line)
        threads.emplace_back([this, line] { runLine(line); });
    for (std::thread& thread : threads)
        thread.join();
    std::printf("seed %u: %d calls in %lld ms\n", rig::seed(), m_calls.load(),
                static_cast<long long>(m_clock.elapsed()));
    for (int end = 0; end < 2; ++end)
        expectAllReceived(end);
    EXPECT_GT(m_calls, lines);
}
