#include "host/session/noise.h"

#include <utility>

namespace host {

namespace {

constexpr int sealedKeyBytes = publicKeyBytes + noiseTagBytes;
// The bytes before the payload of each message.
constexpr int keysBytes[] = {publicKeyBytes, publicKeyBytes + sealedKeyBytes, sealedKeyBytes};

bool showsEphemeral(int message)
{
    return message != 2;
}

bool showsStatic(int message)
{
    return message != 0;
}

} // namespace

NoiseHandshake::NoiseHandshake(Role role, const QByteArray& prologue, std::shared_ptr<const KeyPair> identity,
                               KeyPair ephemeral)
    : m_role(role), m_identity(std::move(identity)), m_ephemeral(std::move(ephemeral)), m_symmetric(prologue)
{
    Q_ASSERT(m_identity && !m_identity->isEmpty() && !m_ephemeral.isEmpty());
}

bool NoiseHandshake::isOurTurn() const
{
    const bool isInitiatorsTurn = m_messages % 2 == 0;
    return !m_hasFailed && m_messages < messageCount && isInitiatorsTurn == (m_role == Role::Initiator);
}

QByteArray NoiseHandshake::write(const QByteArray& payload)
{
    const bool fits = payload.size() <= maxNoiseMessageBytes - noiseMessageBytes[1];
    QByteArray message;
    if (!isOurTurn() || !fits || !writeKeys(&message)) {
        fail();
        return QByteArray();
    }
    message += m_symmetric.encryptAndHash(payload);
    endMessage();
    return message;
}

bool NoiseHandshake::writeKeys(QByteArray* message)
{
    if (showsEphemeral(m_messages)) {
        *message += m_ephemeral.publicKey();
        m_symmetric.mixHash(m_ephemeral.publicKey());
    }
    if (m_messages == 1 && !mixAgreed(m_ephemeral, m_remoteEphemeral))
        return false;
    if (!showsStatic(m_messages))
        return true;
    *message += m_symmetric.encryptAndHash(m_identity->publicKey());
    return mixAgreed(*m_identity, m_remoteEphemeral);
}

bool NoiseHandshake::read(const QByteArray& message, QByteArray* payload)
{
    payload->clear();
    const bool isTheirTurn = !m_hasFailed && m_messages < messageCount && !isOurTurn();
    if (!isTheirTurn || message.size() < noiseMessageBytes[m_messages] || message.size() > maxNoiseMessageBytes) {
        fail();
        return false;
    }
    QByteArray remoteStatic;
    if (!readKeys(message, &remoteStatic) || !m_symmetric.decryptAndHash(message.mid(keysBytes[m_messages]), payload)) {
        fail();
        return false;
    }
    m_remoteStatic = remoteStatic; // only now is it proved that the other side holds its secret
    endMessage();
    return true;
}

bool NoiseHandshake::readKeys(const QByteArray& message, QByteArray* remoteStatic)
{
    int position = 0;
    if (showsEphemeral(m_messages)) {
        if (!readEphemeral(message.left(publicKeyBytes)))
            return false;
        position = publicKeyBytes;
    }
    if (m_messages == 1 && !mixAgreed(m_ephemeral, m_remoteEphemeral))
        return false;
    if (!showsStatic(m_messages))
        return true;
    return m_symmetric.decryptAndHash(message.mid(position, sealedKeyBytes), remoteStatic) &&
           mixAgreed(m_ephemeral, *remoteStatic);
}

bool NoiseHandshake::readEphemeral(const QByteArray& key)
{
    // A line that echoes brings our own key back.
    if (!isUsablePublicKey(key) || key == m_ephemeral.publicKey())
        return false;
    m_remoteEphemeral = key;
    m_symmetric.mixHash(key);
    return true;
}

bool NoiseHandshake::mixAgreed(const KeyPair& ours, const QByteArray& theirs)
{
    const SecretBytes agreed = ours.agree(theirs);
    if (agreed.isEmpty())
        return false;
    m_symmetric.mixKey(agreed);
    return true;
}

void NoiseHandshake::endMessage()
{
    if (++m_messages < messageCount)
        return;
    const bool isInitiator = m_role == Role::Initiator;
    m_symmetric.split(isInitiator ? &m_sending : &m_receiving, isInitiator ? &m_receiving : &m_sending);
    m_ephemeral.wipe();
    m_identity.reset();
}

void NoiseHandshake::fail()
{
    m_hasFailed = true;
    m_ephemeral.wipe();
    m_identity.reset();
    m_remoteStatic.clear();
    m_symmetric.wipe();
    m_sending.wipe();
    m_receiving.wipe();
}

QByteArray NoiseHandshake::hash() const
{
    return isDone() ? m_symmetric.hash() : QByteArray();
}

NoiseCipher NoiseHandshake::takeSending()
{
    return std::exchange(m_sending, NoiseCipher());
}

NoiseCipher NoiseHandshake::takeReceiving()
{
    return std::exchange(m_receiving, NoiseCipher());
}

} // namespace host
