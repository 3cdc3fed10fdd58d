#include "host/session/incomingmessages.h"
#include "rig/host/memorystore.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

namespace {

// Counts what the messages say and tell.
class Control final : public SessionControl
{
public:
    void put(FrameType type, const QByteArray&) override { ++said[type]; }
    void tell(const SessionEvent& event) override { ++told[event.kind]; }
    void giveUp(const QString& reason) override { gaveUp.append(reason); }

    std::map<FrameType, int> said;
    std::map<SessionEvent::Kind, int> told;
    QStringList gaveUp;
};

class IncomingMessagesTest : public ::testing::Test
{
protected:
    IncomingMessagesTest()
    {
        stored.messageId = 7;
        stored.size = 3;
        stored.offset = 3;
        stored.sha256 = QByteArray(sha256Bytes, 'h');
        stored.fileName = QStringLiteral("f");
        store.storedHashes[stored.messageId] = stored.sha256;
        frame.type = FrameType::Offer;
        frame.payload = stored.encode();
    }

    // Of a message that was stored before: each is to be acknowledged again.
    void offer(int times)
    {
        for (int i = 0; i < times; ++i)
            messages.onOffer(frame);
    }

    Peer peer;
    MemoryStore store;
    Control control;
    OfferFrame stored;
    Frame frame;
    IncomingMessages messages{peer, &store, &control};
};

} // namespace

TEST_F(IncomingMessagesTest, AcknowledgementsThatNobodyTakesPileUp)
{
    offer(100000);
    EXPECT_FALSE(messages.hasPiledUp());
    EXPECT_FALSE(messages.nothingLeft());
    offer(1);
    EXPECT_TRUE(messages.hasPiledUp());
    EXPECT_EQ(control.gaveUp, QStringList());
}

TEST_F(IncomingMessagesTest, AThousandAcknowledgementsInAFrame)
{
    offer(2001);
    EXPECT_TRUE(messages.acknowledge());
    EXPECT_TRUE(messages.acknowledge());
    EXPECT_TRUE(messages.acknowledge());
    EXPECT_FALSE(messages.acknowledge());
    EXPECT_EQ(control.said[FrameType::Stored], 3);
    EXPECT_TRUE(messages.nothingLeft());
}

// What a call keeps to be settled at its end does not grow for ever.
TEST_F(IncomingMessagesTest, ACallHasAMillionAcknowledgementsAtMost)
{
    for (int i = 0; i < 20; ++i) {
        offer(50000);
        while (messages.acknowledge()) {
        }
    }
    EXPECT_FALSE(messages.hasPiledUp());
    offer(1);
    EXPECT_TRUE(messages.hasPiledUp());
}
