// Conversations of two channels in simulated time, as they were recorded before a channel could be
// adaptive: without that setting not a byte and not a millisecond of them may change.
#include "com/link/ccomchannel.h"
#include "rig/line/line.h"
#include "rig/line/turns.h"
#include "rig/rng.h"
#include "rig/runs/runprocess.h"
#include "rig/silentstate.h"
#include "tests/link/channelfixture.h"

#include <QCryptographicHash>
#include <QSerialPort>
#include <gtest/gtest.h>

namespace {

using rig::nowNs;
using rig::nsPerMs;
using rig::nsPerS;

// What each end reads from its port, and when.
class Record : public rig::Line::Listener
{
public:
    void bytesRead(int end, const char* data, std::size_t size) override
    {
        const QByteArray moment = QByteArray::number(end) + ' ' + QByteArray::number(qint64(nowNs() / nsPerMs)) + ' ';
        m_hash.addData(moment);
        m_hash.addData(data, static_cast<int>(size));
        m_bytes += size;
    }

    std::string digest() const { return m_hash.result().toHex().left(16).toStdString(); }
    std::size_t bytes() const { return m_bytes; }

private:
    QCryptographicHash m_hash{QCryptographicHash::Sha256};
    std::size_t m_bytes = 0;
};

// A host that reads every some milliseconds and writes pieces of drawn sizes.
class End
{
public:
    End(int end, rig::Rng& rng)
        : m_rng(rng), m_periodMs(rng.between(5, 40)), m_mostBytes(rng.between(1, 1024)),
          m_talks(end == 0 || rng.chance(0.5)), m_channel(&m_port, &m_state, end)
    {
        m_port.setPortName(QString::fromStdString(rig::Line::path(end)));
        EXPECT_TRUE(m_port.open(QIODevice::ReadWrite));
    }

    std::int64_t nextTurnNs() const { return m_nextTurnNs; }

    void turn()
    {
        rig::readAll(m_channel, 1 << 16, [](const QByteArray&) {});
        while (m_talks && m_channel.idealBlockSize() > 0) {
            QByteArray piece(static_cast<int>(m_rng.between(1, m_mostBytes)), '\0');
            for (char& byte : piece)
                byte = static_cast<char>(m_rng.next());
            m_channel.write(piece);
        }
        m_nextTurnNs += m_periodMs * nsPerMs;
        if (m_nextTurnNs < nowNs())
            m_nextTurnNs = nowNs() + m_periodMs * nsPerMs;
    }

private:
    rig::Rng& m_rng;
    const std::int64_t m_periodMs;
    const std::int64_t m_mostBytes;
    const bool m_talks;
    QSerialPort m_port;
    rig::SilentState m_state;
    CComChannel m_channel;
    std::int64_t m_nextTurnNs = 0;
};

struct Recorded
{
    std::uint64_t seed;
    const char* digest;
};

class Conversation : public testing::TestWithParam<Recorded>
{
};

} // namespace

TEST_P(Conversation, IsTheRecordedOne)
{
    rig::Rng rng(GetParam().seed);
    linktest::setKey(QStringLiteral("Details/transportComResendInterval"), int(rng.between(300, 3000)));
    linktest::setKey(QStringLiteral("Details/transportComConfirmationInterval"), int(rng.between(50, 800)));
    linktest::setKey(QStringLiteral("Details/transportComMaxBytesToWrite"), int(rng.between(100, 4096)));
    // Writing a default into the file takes time, too.
    linktest::setKey(QStringLiteral("Details/transportComAdaptive"), 0);
    rig::LineSettings settings;
    settings.bitsPerSecond = std::array{2400, 9600, 33600, 115200}[rng.below(4)];
    settings.delayNs = rng.between(0, 200) * nsPerMs;
    rig::Faults faults;
    faults.bitErrorRate = std::array{0.0, 1e-5, 1e-4, 1e-3}[rng.below(4)];
    faults.dropChunk = rng.chance(0.3) ? 0.01 : 0;
    rig::beginRunProcess();
    rig::Line line(settings, GetParam().seed);
    for (int end = 0; end < 2; ++end)
        line.setFaults(end, faults);
    Record record;
    line.setListener(&record);
    std::array<End, 2> ends{End(0, rng), End(1, rng)};
    while (nowNs() < 60 * nsPerS)
        rig::awaitNextTurn(ends).turn();
    EXPECT_GT(record.bytes(), 3000u);
    EXPECT_EQ(record.digest(), GetParam().digest);
}

INSTANTIATE_TEST_SUITE_P(Recorded, Conversation,
                         testing::Values(Recorded{1, "4a2cce3a7287d251"}, Recorded{2, "fa17aa729d6dbbff"},
                                         Recorded{3, "52dea176a0fe1623"}, Recorded{4, "c420992797845667"},
                                         Recorded{5, "c1f4b42f2bc3a7f6"}, Recorded{6, "aaf9f99d23d777ae"},
                                         Recorded{7, "5e8e169b07c09351"}, Recorded{8, "9ef9225e7ed79f1f"},
                                         Recorded{9, "a26fa93d9404982b"}, Recorded{10, "0059ee844c4ec94a"},
                                         Recorded{11, "c401433814f40049"}, Recorded{12, "a9bdd3d74a265cfe"}),
                         [](const auto& test) { return "Seed" + std::to_string(test.param.seed); });
