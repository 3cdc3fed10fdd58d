// What became of each packet: departures, evidence, and what is under way.
#include "com/link/transmissions.h"

#include <gtest/gtest.h>

namespace {

using Numbers = QVector<quint8>;

constexpr qint64 ms = 1000;

class Sendings : public testing::Test
{
protected:
    // First to last, 100 bytes each.
    void send(int first, int last)
    {
        for (int number = first; number <= last; ++number)
            m_sent.sent(static_cast<quint8>(number), 100);
    }

    void look(qint64 nowUs, qint64 pendingBytes, bool hasMore = false)
    {
        m_sent.look(nowUs, pendingBytes, m_rate, hasMore);
    }

    // What these confirmations together prove to be lost.
    Numbers lostBy(std::initializer_list<quint8> confirmed)
    {
        for (const quint8 number : confirmed)
            m_sent.confirmed(number);
        return m_sent.takeLost();
    }

    Transmissions m_sent;
    DeliveryRate m_rate;
};

} // namespace

TEST_F(Sendings, NothingIsOutAtFirst)
{
    EXPECT_FALSE(m_sent.of(1).isOut);
    EXPECT_TRUE(m_sent.hasAllDeparted());
    EXPECT_EQ(m_sent.writtenBytes(), 0);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
    EXPECT_TRUE(m_sent.takeLost().isEmpty());
}

TEST_F(Sendings, APacketIsOutUntilItIsConfirmed)
{
    send(1, 1);
    EXPECT_TRUE(m_sent.of(1).isOut);
    EXPECT_EQ(m_sent.of(1).wireBytes, 100);
    EXPECT_EQ(m_sent.of(1).departedUs, -1);
    EXPECT_EQ(m_sent.of(1).live.departedUs, -1);
    m_sent.confirmed(1);
    EXPECT_FALSE(m_sent.of(1).isOut);
}

TEST_F(Sendings, OrderAndEndCountAllThatWasWritten)
{
    send(1, 2);
    m_sent.written(15);
    m_sent.repeated(1, false);
    m_sent.sent(3, 12);
    EXPECT_EQ(m_sent.of(1).order, 3);
    EXPECT_EQ(m_sent.of(2).order, 2);
    EXPECT_EQ(m_sent.of(3).order, 4);
    EXPECT_EQ(m_sent.of(2).end, 200);
    EXPECT_EQ(m_sent.of(1).end, 315);
    EXPECT_EQ(m_sent.of(3).end, 327);
    EXPECT_EQ(m_sent.writtenBytes(), 327);
}

// Departures

TEST_F(Sendings, APacketHasDepartedOnceItsLastByteHas)
{
    send(1, 2);
    look(10 * ms, 101);
    EXPECT_EQ(m_sent.of(1).departedUs, -1);
    EXPECT_FALSE(m_sent.hasAllDeparted());
    look(20 * ms, 100);
    EXPECT_EQ(m_sent.of(1).departedUs, 20 * ms);
    EXPECT_EQ(m_sent.of(1).live.departedUs, 20 * ms);
    EXPECT_EQ(m_sent.of(2).departedUs, -1);
    EXPECT_FALSE(m_sent.hasAllDeparted());
    look(30 * ms, 0);
    EXPECT_EQ(m_sent.of(1).departedUs, 20 * ms);
    EXPECT_EQ(m_sent.of(2).departedUs, 30 * ms);
    EXPECT_TRUE(m_sent.hasAllDeparted());
}

TEST_F(Sendings, ConfirmationsBehindAPacketAreInThePortToo)
{
    send(1, 1);
    m_sent.written(20);
    look(10 * ms, 20);
    EXPECT_EQ(m_sent.of(1).departedUs, 10 * ms);
    EXPECT_TRUE(m_sent.hasAllDeparted());
}

TEST_F(Sendings, ARepeatDepartsAnew)
{
    send(1, 2);
    look(10 * ms, 0);
    m_sent.repeated(1, false);
    EXPECT_EQ(m_sent.of(1).departedUs, -1);
    EXPECT_EQ(m_sent.of(1).live.departedUs, 10 * ms) << "the first copy may still arrive";
    EXPECT_FALSE(m_sent.hasAllDeparted());
    look(50 * ms, 0);
    EXPECT_EQ(m_sent.of(1).departedUs, 50 * ms);
    EXPECT_EQ(m_sent.of(1).live.departedUs, 10 * ms);
}

TEST_F(Sendings, ARepeatBehindACopyStillInThePortDepartsAfterIt)
{
    send(1, 1);
    m_sent.repeated(1, false);
    look(10 * ms, 100);
    EXPECT_EQ(m_sent.of(1).departedUs, -1) << "of the latest copy";
    EXPECT_EQ(m_sent.of(1).live.departedUs, 10 * ms);
    look(20 * ms, 0);
    EXPECT_EQ(m_sent.of(1).departedUs, 20 * ms);
    EXPECT_EQ(m_sent.of(1).live.departedUs, 10 * ms);
}

TEST_F(Sendings, ANumberUsedAgainForgetsWhatItWas)
{
    send(1, 1);
    look(10 * ms, 0);
    m_sent.repeated(1, false);
    m_sent.confirmed(1);
    m_sent.sent(1, 30);
    look(20 * ms, 30);
    EXPECT_EQ(m_sent.of(1).departedUs, -1) << "a copy of the packet before it has left";
    EXPECT_EQ(m_sent.of(1).live.departedUs, -1);
    look(30 * ms, 0);
    EXPECT_EQ(m_sent.of(1).departedUs, 30 * ms);
    EXPECT_EQ(m_sent.of(1).live.departedUs, 30 * ms);
}

TEST_F(Sendings, ACopyOfAConfirmedPacketDepartsUnnoticed)
{
    send(1, 1);
    m_sent.confirmed(1);
    look(10 * ms, 0);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
    EXPECT_EQ(m_sent.of(1).departedUs, -1);
}

TEST_F(Sendings, ADeparturePassesOnWhetherMoreFollows)
{
    send(1, 3);
    look(10 * ms, 100);
    EXPECT_TRUE(m_sent.of(1).live.hadMore) << "something is still in the port";
    look(20 * ms, 0);
    EXPECT_FALSE(m_sent.of(3).live.hadMore);
    send(4, 4);
    look(30 * ms, 0, true);
    EXPECT_TRUE(m_sent.of(4).live.hadMore);
}

TEST_F(Sendings, ADeparturePassesOnWhetherItIsAlone)
{
    send(1, 1);
    look(10 * ms, 0);
    EXPECT_EQ(m_sent.of(1).live.settledUs, 10 * ms);
    send(2, 2);
    look(20 * ms, 0);
    EXPECT_EQ(m_sent.of(2).live.settledUs, 10 * ms) << "the first one is on its way";
    m_sent.confirmed(1);
    m_sent.confirmed(2);
    send(3, 3);
    look(30 * ms, 0);
    EXPECT_EQ(m_sent.of(3).live.settledUs, 30 * ms);
}

// Under way

TEST_F(Sendings, UnderWayIsWhatHasDepartedAndIsNotConfirmed)
{
    send(1, 3);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
    look(10 * ms, 100);
    EXPECT_EQ(m_sent.underWayBytes(), 200);
    m_sent.confirmed(1);
    EXPECT_EQ(m_sent.underWayBytes(), 100);
    look(20 * ms, 0);
    EXPECT_EQ(m_sent.underWayBytes(), 200);
    m_sent.confirmed(2);
    m_sent.confirmed(3);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
}

TEST_F(Sendings, WhatIsLostIsNotUnderWayUntilItsRepeatDeparts)
{
    send(1, 2);
    look(10 * ms, 0);
    lostBy({2});
    EXPECT_EQ(m_sent.underWayBytes(), 0);
    m_sent.repeated(1, true);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
    look(20 * ms, 0);
    EXPECT_EQ(m_sent.underWayBytes(), 100);
    m_sent.confirmed(1);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
}

TEST_F(Sendings, ARepeatThatNobodyNeededIsUnderWayOnce)
{
    send(1, 1);
    look(10 * ms, 0);
    m_sent.repeated(1, false);
    look(20 * ms, 0);
    EXPECT_EQ(m_sent.underWayBytes(), 100);
    m_sent.confirmed(1);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
}

TEST_F(Sendings, ALostPacketThatIsConfirmedAllTheSameIsNotTakenOffTwice)
{
    send(1, 3);
    look(10 * ms, 0);
    EXPECT_EQ(lostBy({2}), Numbers{1});
    EXPECT_EQ(m_sent.underWayBytes(), 100);
    EXPECT_TRUE(m_sent.confirmed(1).isLost) << "only its confirmation was";
    EXPECT_EQ(m_sent.underWayBytes(), 100);
}

TEST_F(Sendings, ConfirmedBeforeItsDepartureWasSeen)
{
    send(1, 1);
    m_sent.confirmed(1);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
    look(10 * ms, 0);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
}

TEST_F(Sendings, LostBeforeItsDepartureWasSeen)
{
    send(1, 2);
    EXPECT_EQ(lostBy({2}), Numbers{1});
    look(10 * ms, 0);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
    m_sent.confirmed(1);
    EXPECT_EQ(m_sent.underWayBytes(), 0);
}

// Evidence

TEST_F(Sendings, WhatWentBeforeAConfirmedPacketIsLost)
{
    send(1, 5);
    EXPECT_EQ(lostBy({4}), (Numbers{1, 2, 3}));
    EXPECT_TRUE(m_sent.of(1).isLost);
    EXPECT_TRUE(m_sent.of(3).isLost);
    EXPECT_FALSE(m_sent.of(5).isLost);
}

TEST_F(Sendings, WhatIsConfirmedTogetherIsJudgedTogether)
{
    send(1, 5);
    EXPECT_EQ(lostBy({4, 1}), (Numbers{2, 3})) << "by the latest of them";
}

TEST_F(Sendings, InOrderNothingIsLost)
{
    send(1, 3);
    EXPECT_TRUE(lostBy({1}).isEmpty());
    EXPECT_TRUE(lostBy({2, 3}).isEmpty());
}

TEST_F(Sendings, ALossIsToldOnce)
{
    send(1, 4);
    EXPECT_EQ(lostBy({2}), Numbers{1});
    EXPECT_TRUE(m_sent.takeLost().isEmpty());
    EXPECT_EQ(lostBy({4}), Numbers{3});
}

TEST_F(Sendings, LossesAreToldInTheOrderOfSending)
{
    send(254, 256); // 254, 255, 0
    send(1, 2);
    EXPECT_EQ(lostBy({2}), (Numbers{254, 255, 0, 1}));
}

TEST_F(Sendings, ANeededRepeatIsLostOnlyByWhatFollowsIt)
{
    send(1, 3);
    EXPECT_EQ(lostBy({2}), Numbers{1});
    m_sent.repeated(1, true);
    EXPECT_FALSE(m_sent.of(1).isLost);
    EXPECT_EQ(m_sent.of(1).liveOrder, 4);
    EXPECT_TRUE(lostBy({3}).isEmpty()) << "3 went before the repeat";
    send(4, 4);
    EXPECT_EQ(lostBy({4}), Numbers{1}) << "4 went after it";
}

TEST_F(Sendings, ANeededRepeatIsEvidenceOfItsOwn)
{
    send(1, 3);
    EXPECT_EQ(lostBy({2}), Numbers{1});
    m_sent.repeated(1, true);
    EXPECT_EQ(lostBy({1}), Numbers{3}) << "the repeat arrived, 3 before it did not";
}

TEST_F(Sendings, ARepeatThatNobodyNeededIsNoEvidence)
{
    send(1, 3);
    m_sent.repeated(1, false);
    EXPECT_EQ(m_sent.of(1).liveOrder, 1);
    EXPECT_TRUE(lostBy({1}).isEmpty()) << "the first copy may have been the one that arrived";
}

TEST_F(Sendings, ARepeatThatNobodyNeededIsNotLostByWhatWentBeforeIt)
{
    send(1, 3);
    m_sent.repeated(1, false);
    EXPECT_TRUE(lostBy({2}).isEmpty());
    send(4, 4);
    EXPECT_EQ(lostBy({4}), (Numbers{3, 1})) << "in the order of their latest copies";
}

TEST_F(Sendings, ANeededRepeatForgetsWhenEarlierCopiesLeft)
{
    send(1, 2);
    look(10 * ms, 0);
    lostBy({2});
    m_sent.repeated(1, true);
    EXPECT_EQ(m_sent.of(1).live.departedUs, -1);
    look(70 * ms, 0);
    EXPECT_EQ(m_sent.of(1).live.departedUs, 70 * ms);
}

TEST_F(Sendings, EvidenceOfOldConfirmationsStays)
{
    send(1, 5);
    EXPECT_EQ(lostBy({5}), (Numbers{1, 2, 3, 4}));
    m_sent.repeated(4, true);
    EXPECT_TRUE(lostBy({2}).isEmpty()) << "an earlier one takes nothing back";
    EXPECT_TRUE(m_sent.of(3).isLost);
}

TEST_F(Sendings, AConfirmedPacketTellsWhatItWasForALastTime)
{
    send(1, 1);
    look(10 * ms, 0);
    m_sent.repeated(1, false);
    const Transmissions::Packet packet = m_sent.confirmed(1);
    EXPECT_EQ(packet.order, 2);
    EXPECT_EQ(packet.liveOrder, 1);
    EXPECT_EQ(packet.wireBytes, 100);
    EXPECT_EQ(packet.live.departedUs, 10 * ms);
    EXPECT_FALSE(packet.isLost);
}
