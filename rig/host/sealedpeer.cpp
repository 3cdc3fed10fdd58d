#include "rig/host/sealedpeer.h"

#include <cstring>

namespace rig {

using namespace host;

namespace {

SessionCall callOf(bool isCaller)
{
    return SessionCall{isCaller, isCaller ? QStringLiteral("the session") : QString()};
}

} // namespace

std::shared_ptr<const KeyPair> testKey(int number)
{
    startCryptography();
    SecretBytes secret(secretKeyBytes);
    std::memset(secret.data(), number + 1, secretKeyBytes);
    return std::make_shared<const KeyPair>(KeyPair::fromSecret(std::move(secret)));
}

PeerDirectory::Verdict TestDirectory::whoAnswers(const QString& calledAbonent, const QByteArray& publicKey)
{
    called = calledAbonent;
    return look(publicKey);
}

std::optional<PeerDirectory::Verdict> TestDirectory::whyExpelled(const Peer& peer)
{
    ++timesAsked;
    if (blockedKeys.count(peer.publicKey) == 0)
        return std::nullopt;
    Verdict verdict;
    verdict.cause = Verdict::Cause::BlockedKey;
    verdict.reason = QStringLiteral("blocked by the test");
    return verdict;
}

PeerDirectory::Verdict TestDirectory::look(const QByteArray& publicKey) const
{
    Verdict verdict;
    const auto known = names.find(publicKey);
    if (refusal) {
        verdict.cause = *refusal;
        verdict.reason = QStringLiteral("refused by the test");
    } else if (known != names.end() || !everybodyElse.isEmpty()) {
        verdict.kind = Verdict::Kind::Proved;
        verdict.abonent = known != names.end() ? known->second : everybodyElse;
    } else if (acceptsUnknown) {
        verdict.kind = Verdict::Kind::Unproved;
        verdict.abonent = QStringLiteral("key ") + QString::fromLatin1(publicKey.left(4).toHex());
    } else {
        verdict.reason = QStringLiteral("unknown to the test");
    }
    return verdict;
}

SealedPeer::SealedPeer(bool isCaller, std::shared_ptr<const KeyPair> key)
    : m_opening(callOf(isCaller), std::move(key), &m_directory, nullptr)
{
    m_directory.everybodyElse = QStringLiteral("the session");
}

bool SealedPeer::shakeHands(Session* session, qint64 nowMs)
{
    // Three messages, one behind the other.
    for (int round = 0; round < 4 && !isOpen() && !m_opening.hasFailed(); ++round) {
        session->receive(m_opening.takeOutput(nowMs), nowMs);
        if (m_opening.maySend())
            m_writer = FrameWriter(m_opening.takeSending());
        append(session->takeOutput(1 << 16, nowMs));
    }
    if (m_opening.maySend() && !isOpen())
        m_writer = FrameWriter(m_opening.takeSending());
    return isOpen();
}

void SealedPeer::append(const QByteArray& bytes)
{
    if (m_hears) {
        m_reader.append(bytes);
        return;
    }
    m_opening.receive(bytes, 0);
    if (!m_opening.isOver())
        return;
    m_hears = true;
    m_reader = FrameReader(m_opening.takeReceiving());
    m_reader.append(m_opening.takeRest());
}

} // namespace rig
