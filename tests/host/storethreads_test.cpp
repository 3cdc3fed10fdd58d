// Two threads at one queue and at one inbox. Each test has many rounds and an invariant that
// breaks without the lock; under the thread sanitizer a single unlocked access is enough.
#include "tests/host/inboxfixture.h"
#include "tests/host/sessionpair.h"

#include <atomic>
#include <thread>

using namespace host;
using namespace hosttest;

class StoreThreads : public InboxFixture
{
};

namespace {

// Messages that one thread queues and several deliver, while another looks on.
class ManyMessages
{
public:
    static constexpr int count = 200;

    ManyMessages(OutgoingQueue& queue, const Peer& peer) : m_queue(queue), m_peer(peer), m_owners(count + 1) {}

    // Until all have been delivered, or one twice.
    bool isOver() const { return delivered >= count || isWrong; }

    void produce(const QString& source)
    {
        for (int i = 0; i < count; ++i) {
            isWrong = isWrong || !m_queue.enqueue(m_peer.abonent, source).isEmpty();
            m_queue.rescan();
        }
    }

    // The host's own thread, which shows the queue and decides whom to call.
    void observe()
    {
        const WaitReason reason{WaitReason::Kind::NotTried, 0, {}, {}, {}};
        while (!isOver()) {
            (void)m_queue.waitingAbonents();
            (void)m_queue.hasUnclaimed(m_peer);
            (void)m_queue.queuedIds(m_peer);
            m_queue.updateReasons([&reason](const QString&) { return reason; });
            std::this_thread::yield();
        }
    }

    void deliver(int worker)
    {
        char session = 0;
        int turns = 0;
        while (!isOver()) {
            const std::optional<OutgoingMessage> mine = m_queue.claimNext(m_peer, &session);
            if (!mine) {
                (void)m_queue.messages();
                m_queue.rescan();
                std::this_thread::yield();
                continue;
            }
            std::atomic<int>& owner = m_owners[mine->key.toUInt() % m_owners.size()];
            if (owner.exchange(worker + 1) != 0)
                isWrong = true; // two have it
            if (++turns % 4 == 0) {
                m_queue.notDelivered(*mine, QStringLiteral("try %1").arg(turns), OutgoingStore::Fault::Remote);
                owner = 0;
                m_queue.releaseAll(&session);
                continue;
            }
            if (!m_queue.remove(*mine).isEmpty())
                isWrong = true;
            owner = 0;
            ++delivered;
        }
    }

    std::atomic<int> delivered{0};
    std::atomic<bool> isWrong{false};

private:
    OutgoingQueue& m_queue;
    const Peer m_peer;
    std::vector<std::atomic<int>> m_owners; // by the message's number
};

} // namespace

// Whatever they do at once, each message is claimed by one of them and delivered once.
TEST_F(StoreThreads, EachMessageIsClaimedOnce)
{
    constexpr int workers = 3;
    const auto store = open();
    OutgoingQueue& queue = store->queue();
    const QString source = writeFile(rig::installRoot() + QStringLiteral("/source"), "x");
    ManyMessages messages(queue, bob);
    std::vector<std::thread> threads;
    threads.emplace_back([&] { messages.produce(source); });
    threads.emplace_back([&] { messages.observe(); });
    for (int worker = 0; worker < workers; ++worker)
        threads.emplace_back([&, worker] { messages.deliver(worker); });
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_FALSE(messages.isWrong);
    EXPECT_EQ(messages.delivered, ManyMessages::count) << "once each";
    queue.rescan();
    EXPECT_EQ(queue.messages().size(), 0);
    EXPECT_EQ(paths.output.entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot), QStringList())
        << "no reason brought a removed message's directory back";
}

// Two threads note reasons, for the message and for all, while a third takes it out.
TEST_F(StoreThreads, AReasonDoesNotBringAMessageBack)
{
    const auto store = open();
    OutgoingQueue& queue = store->queue();
    const QString source = writeFile(rig::installRoot() + QStringLiteral("/source"), "x");
    for (int round = 0; round < 60; ++round) {
        QueuedMessage message;
        ASSERT_EQ(queue.enqueue(bob.abonent, source, &message), QString());
        queue.rescan();
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int i = 0; i < 2; ++i) {
            threads.emplace_back([&, i] {
                ++ready;
                for (int k = 0; k < 5; ++k) {
                    const WaitReason reason{
                        i == 0 ? WaitReason::Kind::Other : WaitReason::Kind::CallsFailed, k, {}, {}, {}};
                    if (i == 0)
                        queue.setReason(message, reason);
                    else
                        queue.updateReasons([&reason](const QString&) { return reason; });
                }
            });
        }
        while (ready < 2)
            std::this_thread::yield();
        EXPECT_EQ(queue.remove(message), QString());
        for (std::thread& thread : threads)
            thread.join();
        ASSERT_EQ(paths.output.entryList(QDir::Dirs | QDir::Hidden | QDir::NoDotAndDotDot), QStringList()) << round;
    }
}

// Sessions that take the same message from one another, store and resume at will: it is in
// the inbox once, whole, under its hash.
TEST_F(StoreThreads, SessionsFightForOneMessage)
{
    const auto store = open();
    std::atomic<int> foreign{0};
    for (quint64 id = 1; id <= 40; ++id) {
        const QByteArray content = randomBytes(3000, static_cast<unsigned>(id));
        const OfferFrame offer = offerOf(id, QStringLiteral("f"), content);
        std::vector<std::thread> threads;
        for (int worker = 0; worker < 3; ++worker) {
            threads.emplace_back([&, worker] {
                while (!store->inbox().isStored(bob, id, offer.sha256)) {
                    RefusedFrame why;
                    QCryptographicHash hash(QCryptographicHash::Sha256);
                    std::unique_ptr<IncomingFile> file;
                    qint64 stands = 0;
                    auto parts = store->inbox().parts(bob);
                    if (worker != 0 && !parts.empty()) {
                        QString error;
                        for (QByteArray piece; !(piece = parts[0]->readBack(500, &error)).isEmpty();
                             stands += piece.size())
                            hash.addData(piece);
                        OfferFrame rest = offer;
                        rest.offset = stands;
                        if (stands > 0 && stands <= offer.size && parts[0]->resume(rest, &why))
                            file = std::move(parts[0]);
                    } else {
                        file = store->inbox().begin(bob, offer, &why);
                    }
                    if (!file)
                        continue;
                    // Worker 2 is another sender under the same name: its bytes differ.
                    const QByteArray mine = worker == 2 ? QByteArray(3000, 'x') : content;
                    bool lost = false;
                    for (qint64 at = stands; at < offer.size && !lost; at += 700) {
                        const QByteArray piece = mine.mid(static_cast<int>(at), 700);
                        lost = !file->append(piece).isEmpty();
                        hash.addData(piece);
                    }
                    QString place;
                    if (!lost && hash.result() == offer.sha256 && file->store(offer, &place).isEmpty() &&
                        sha256(readAll(place)) != offer.sha256)
                        ++foreign;
                    else if (!lost && worker == 2)
                        file->discard();
                }
            });
        }
        for (std::thread& thread : threads)
            thread.join();
    }
    EXPECT_EQ(foreign, 0);
    QHash<quint64, int> found;
    for (const ReceivedMessage& message : store->inbox().messages()) {
        ++found[message.id];
        EXPECT_EQ(sha256(readAll(message.path)), message.sha256);
    }
    EXPECT_EQ(found.size(), 40);
    for (const int count : found)
        EXPECT_EQ(count, 1);
    EXPECT_EQ(partNames(), QStringList());
}
