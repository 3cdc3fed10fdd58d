// Strangers slow the answers of an installation down: what that costs an abonent whose key is
// known, over a line of 1200 bit/s, in simulated time.
#include "rig/testroot.h"
#include "tests/host/sessionpair.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;
using namespace rig;
using Kind = SessionEvent::Kind;

namespace {

constexpr int byteMs = 8; // of 1200 bit/s, ten bits a byte
constexpr int noticedMs = 2 * byteMs;

class SlowedOpening : public testing::Test
{
protected:
    SlowedOpening()
    {
        for (SessionPair::Side* side : {&pair.a, &pair.b}) {
            side->settings.guard = std::make_shared<HandshakeGuard>([this] { return pair.nowMs; });
            side->directory.everybodyElse.clear();
        }
        pair.a.directory.everybodyElse = QStringLiteral("Боб"); // whom it called
        pair.a.tamper = [this](const QByteArray& bytes) {
            if (m_answeredMs < 0 && !QByteArray(bytes).replace(Opening::filler(), QByteArray()).isEmpty())
                m_answeredMs = pair.nowMs;
            return bytes;
        };
    }

    static LineOptions slowLine()
    {
        LineOptions line;
        line.pieceBytes = 118;
        line.queueBytes = 512;
        line.bytesPerStep = 1;
        line.stepMs = byteMs;
        return line;
    }

    void call(int key)
    {
        pair.a.settings.identity = testKey(key);
        m_answeredMs = -1;
        m_beganMs = pair.nowMs;
        pair.connect(slowLine());
    }
    // Until the first word of whoever was called.
    [[nodiscard]] qint64 answerMs() const { return m_answeredMs - m_beganMs; }
    [[nodiscard]] qint64 callMs() const { return pair.nowMs - m_beganMs; }
    [[nodiscard]] HandshakeGuard& guard() const { return *pair.b.settings.guard; }

    // A whole call of an abonent with a file.
    void callAndDeliver(const QString& name, const QByteArray& content)
    {
        const int failures = guard().failures();
        pair.a.store.queue(name, content);
        call(1);
        const size_t named = pair.b.events.size();
        ASSERT_TRUE(pair.runUntil([&] { return pair.b.events.size() > named && !pair.a.session->peerName().isEmpty(); },
                                  3600 * 1000))
            << qPrintable(pair.a.session->endReason() + pair.b.session->endReason());
        EXPECT_LT(callMs(), pair.b.settings.openingMs / 2) << "far from the limit of an opening";
        ASSERT_TRUE(pair.runToEnd());
        EXPECT_TRUE(pair.a.session->endedWell()) << qPrintable(pair.a.session->endReason());
        EXPECT_TRUE(pair.b.session->endedWell()) << qPrintable(pair.b.session->endReason());
        ASSERT_FALSE(pair.b.store.inbox.empty());
        EXPECT_EQ(pair.b.store.inbox.back().fileName, name);
        EXPECT_TRUE(pair.b.store.inbox.back().content == content);
        EXPECT_EQ(guard().failures(), failures) << "it is not counted among those who failed";
    }

    SessionPair pair{rig::seed()};

private:
    qint64 m_answeredMs = -1;
    qint64 m_beganMs = 0;
};

} // namespace

TEST_F(SlowedOpening, AProvedAbonentGetsInBehindTheLongestDelay)
{
    const QByteArray content = randomBytes(3000, rig::seed());
    callAndDeliver(QStringLiteral("before"), content);
    const qint64 answerMs = this->answerMs();
    const qint64 callMs = this->callMs();

    for (const int delayMs : {0, 500, 1000, 2000, 4000, 8000, 8000}) {
        EXPECT_EQ(guard().answerDelayMs(), delayMs);
        call(7);
        ASSERT_TRUE(pair.runToEnd(60000));
        EXPECT_EQ(pair.b.session->end(), SessionEnd::UnknownKey);
        EXPECT_NEAR(this->answerMs() - answerMs, delayMs, noticedMs) << "no longer than it must be";
    }
    ASSERT_EQ(guard().answerDelayMs(), HandshakeGuard::maxDelayMs);
    // Its own installation was tried as often, which is nothing to a call that it places.
    for (int i = 0; i < 10; ++i)
        pair.a.settings.guard->failed();

    callAndDeliver(QStringLiteral("meanwhile"), content);
    EXPECT_NEAR(this->answerMs() - answerMs, HandshakeGuard::maxDelayMs, noticedMs);
    EXPECT_NEAR(this->callMs() - callMs, HandshakeGuard::maxDelayMs, 1000) << "it waits once, and then no more";
}

// On the other lines of the installation they go on while the abonent's call opens.
TEST_F(SlowedOpening, StrangersOnOtherLinesPutItOffNoFurther)
{
    const QByteArray content = randomBytes(3000, rig::seed());
    callAndDeliver(QStringLiteral("before"), content);
    const qint64 callMs = this->callMs();
    for (int i = 0; i < 6; ++i)
        guard().failed();
    pair.a.store.queue(QStringLiteral("meanwhile"), content);
    call(1);
    qint64 nextMs = pair.nowMs;
    ASSERT_TRUE(pair.runUntil([&] {
        if (pair.nowMs >= nextMs) {
            guard().failed();
            nextMs += 1000;
        }
        return pair.a.session->isFinished() && pair.b.session->isFinished();
    })) << qPrintable(pair.b.session->endReason());
    EXPECT_TRUE(pair.b.session->endedWell()) << qPrintable(pair.b.session->endReason());
    ASSERT_EQ(pair.b.store.inbox.size(), 2u);
    EXPECT_TRUE(pair.b.store.inbox.back().content == content);
    EXPECT_NEAR(this->callMs() - callMs, HandshakeGuard::maxDelayMs, 1000);
}

// The line is slower than a session usually takes to close.
TEST_F(SlowedOpening, WhoIsRefusedReadsWhy)
{
    call(7);
    ASSERT_TRUE(pair.runToEnd(60000));
    EXPECT_EQ(pair.b.session->end(), SessionEnd::UnknownKey);
    EXPECT_EQ(pair.a.session->end(), SessionEnd::RefusedByPeer) << qPrintable(pair.a.session->endReason());
    EXPECT_TRUE(pair.a.session->endReason().contains(QLatin1String("your key is not known here")))
        << qPrintable(pair.a.session->endReason());
}
