// Handshakes with an implementation that is not ours, in a process of its own.
#include "rig/testroot.h"
#include "tests/host/noisetools.h"

#include <QFileInfo>
#include <QProcess>
#include <QtEndian>

#include <algorithm>
#include <random>

using host::NoiseCipher;
using host::NoiseHandshake;
using Role = NoiseHandshake::Role;

namespace {

constexpr int deadlineMs = 60000;
constexpr int notGenuine = 3; // the peer's exit status
const QString peerScript = QStringLiteral(SOURCE_DIR "/tests/host/noise/peer.py");
const QByteArray prologue("prologue \0\xFF", 11);

QString nameOf(Role role)
{
    return role == Role::Initiator ? QStringLiteral("initiator") : QStringLiteral("responder");
}

Role otherOf(Role role)
{
    return role == Role::Initiator ? Role::Responder : Role::Initiator;
}

class NoiseLive : public testing::Test
{
protected:
    std::shared_ptr<const host::KeyPair> identity = noisetools::newIdentity();
    QByteArray peersKey;

    void TearDown() override
    {
        m_peer.closeWriteChannel();
        if (m_peer.state() != QProcess::NotRunning && !m_peer.waitForFinished(deadlineMs)) {
            m_peer.kill();
            m_peer.waitForFinished();
            ADD_FAILURE() << "the peer does not end";
        }
    }

    void startPeer(Role role, const QByteArray& peersPrologue, const QByteArray& shownKey = QByteArray())
    {
        m_peer.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        QStringList arguments{peerScript, nameOf(role), QString::fromLatin1(peersPrologue.toHex())};
        if (!shownKey.isEmpty())
            arguments.append(QString::fromLatin1(shownKey.toHex()));
        // The system's own, which has the system's packages.
        m_peer.start(QStringLiteral("/usr/bin/python3"), arguments);
        ASSERT_TRUE(m_peer.waitForStarted(deadlineMs)) << m_peer.errorString().toStdString();
        peersKey = take();
        ASSERT_EQ(peersKey.size(), 32) << "install python3-dissononce, or run scripts/test";
    }

    // Empty when the peer has ended.
    QByteArray take()
    {
        const QByteArray head = takeBytes(2);
        return head.isEmpty() ? QByteArray() : takeBytes(qFromBigEndian<quint16>(head.constData()));
    }

    void put(const QByteArray& message)
    {
        char head[2];
        qToBigEndian(static_cast<quint16>(message.size()), head);
        m_peer.write(head, sizeof head);
        m_peer.write(message);
        m_peer.waitForBytesWritten(deadlineMs);
    }

    void expectPeersEnd(int status)
    {
        m_peer.closeWriteChannel();
        ASSERT_TRUE(m_peer.state() == QProcess::NotRunning || m_peer.waitForFinished(deadlineMs));
        EXPECT_EQ(m_peer.exitStatus(), QProcess::NormalExit);
        EXPECT_EQ(m_peer.exitCode(), status);
    }

    // The whole handshake, ours being role.
    void shakeHands(NoiseHandshake& ours, Role role)
    {
        for (int number = 0; number < 3; ++number) {
            if (ours.isOurTurn()) {
                put(ours.write("payload of ours"));
                continue;
            }
            const QByteArray message = take();
            QByteArray payload;
            ASSERT_TRUE(ours.read(message, &payload)) << number;
            EXPECT_EQ(payload, QStringLiteral("from %1 %2").arg(nameOf(otherOf(role))).arg(number).toUtf8());
        }
        ASSERT_TRUE(ours.isDone());
        EXPECT_EQ(ours.remotePublicKey().toHex(), peersKey.toHex());
        EXPECT_EQ(take().toHex(), ours.hash().toHex());
        EXPECT_EQ(take().toHex(), identity->publicKey().toHex());
    }

    // Every secret that is agreed on with such a key is known to everybody: whoever shows one as
    // its own has proved nothing.
    void expectKeyRefused(Role role, const QByteArray& key)
    {
        ASSERT_NO_FATAL_FAILURE(startPeer(otherOf(role), prologue, key));
        ASSERT_EQ(peersKey, key);
        NoiseHandshake ours(role, prologue, identity);
        QByteArray payload;
        bool isRefused = false;
        int number = 0;
        for (; number < 3 && !isRefused; ++number) {
            if (ours.isOurTurn())
                put(ours.write("x"));
            else
                isRefused = !ours.read(take(), &payload);
        }
        EXPECT_TRUE(isRefused);
        EXPECT_EQ(number, role == Role::Initiator ? 2 : 3) << "in the message that shows it";
        EXPECT_TRUE(ours.remotePublicKey().isEmpty());
    }

private:
    QByteArray takeBytes(int size)
    {
        while (m_peer.bytesAvailable() < size) {
            if (!m_peer.waitForReadyRead(deadlineMs))
                return QByteArray();
        }
        return m_peer.read(size);
    }

    QProcess m_peer;
};

class NoiseLiveRoles : public NoiseLive, public testing::WithParamInterface<Role>
{
};

} // namespace

TEST_P(NoiseLiveRoles, HandshakeAndManyMessages)
{
    ASSERT_NO_FATAL_FAILURE(startPeer(otherOf(GetParam()), prologue));
    NoiseHandshake ours(GetParam(), prologue, identity);
    ASSERT_NO_FATAL_FAILURE(shakeHands(ours, GetParam()));
    NoiseCipher sending = ours.takeSending();
    NoiseCipher receiving = ours.takeReceiving();
    std::mt19937 random(rig::seed());
    for (int i = 0; i < 200; ++i) {
        QByteArray plain(i == 0 ? 0 : static_cast<int>(random() % (i == 199 ? 65520 : 600)), '\0');
        std::generate(plain.begin(), plain.end(), [&] { return static_cast<char>(random()); });
        put(sending.seal(plain));
        QByteArray answer;
        ASSERT_TRUE(receiving.open(take(), &answer)) << i;
        std::reverse(answer.begin(), answer.end());
        ASSERT_EQ(answer.toHex(), plain.toHex());
    }
    expectPeersEnd(0);
}

TEST_P(NoiseLiveRoles, AnotherPrologueIsNoticedByWhoReadsMessageTwo)
{
    ASSERT_NO_FATAL_FAILURE(startPeer(otherOf(GetParam()), "another"));
    NoiseHandshake ours(GetParam(), prologue, identity);
    QByteArray payload;
    if (GetParam() == Role::Initiator) {
        put(ours.write("x"));
        EXPECT_FALSE(ours.read(take(), &payload));
        EXPECT_TRUE(ours.hasFailed());
        return;
    }
    ASSERT_TRUE(ours.read(take(), &payload));
    put(ours.write("x"));
    expectPeersEnd(notGenuine);
}

TEST_P(NoiseLiveRoles, AZeroKeyIsRefused)
{
    expectKeyRefused(GetParam(), QByteArray(32, '\0'));
}

TEST_P(NoiseLiveRoles, AKeyOfSmallOrderIsRefused)
{
    expectKeyRefused(GetParam(),
                     QByteArray::fromHex("e0eb7a7c3b41b8ae1656e3faf19fc46ada098deb9c32b1fd866205165f49b800"));
}

TEST_P(NoiseLiveRoles, OneBitEndsItOnTheirSideToo)
{
    ASSERT_NO_FATAL_FAILURE(startPeer(otherOf(GetParam()), prologue));
    NoiseHandshake ours(GetParam(), prologue, identity);
    ASSERT_NO_FATAL_FAILURE(shakeHands(ours, GetParam()));
    QByteArray sealed = ours.takeSending().seal("something");
    sealed[3] = static_cast<char>(sealed.at(3) ^ 4);
    put(sealed);
    expectPeersEnd(notGenuine);
}

INSTANTIATE_TEST_SUITE_P(Noise, NoiseLiveRoles, testing::Values(Role::Initiator, Role::Responder),
                         [](const auto& roles) { return roles.param == Role::Initiator ? "WeCall" : "TheyCall"; });
