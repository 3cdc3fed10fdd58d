#include "host/session/opening.h"

#include "host/session/bytecodec.h"
#include "host/session/frame.h"
#include "host/session/sessionframes.h"

namespace host {

namespace {

const QByteArray magic = QByteArrayLiteral("transport-host");
constexpr int versionAt = 14;
constexpr int wordBytes = 18;
constexpr char callerRole = 'C';
constexpr char answererRole = 'A';

constexpr char fillerItem = 0;
constexpr char lastMessageItem = 3; // message 3 follows
constexpr char sealedItem = 4; // sealed frames follow

// The first version began with a frame in the clear: type 1, length (2), the magic, its version.
constexpr char firstVersionItem = 1;
constexpr int firstVersionHeaderBytes = 3;

QByteArray wordOf(char role)
{
    QByteArray word = magic;
    putU8(word, sessionVersion);
    word.append(role);
    putU8(word, maxFramePayloadBytes >> 8);
    putU8(word, maxFramePayloadBytes & 0xFF);
    return word;
}

QString otherVersion(int theirs)
{
    return QStringLiteral("the other side speaks version %1 of the session protocol, this one version %2: "
                          "install the same version on both")
        .arg(QString::number(theirs), QString::number(sessionVersion));
}

} // namespace

Opening::Opening(const SessionCall& call, std::shared_ptr<const KeyPair> identity, PeerDirectory* directory,
                 HandshakeGuard* guard)
    : m_call(call), m_identity(std::move(identity)), m_directory(directory), m_guard(guard),
      m_handshake(call.isOutgoing ? NoiseHandshake::Role::Initiator : NoiseHandshake::Role::Responder,
                  wordOf(callerRole) + wordOf(answererRole), m_identity)
{
    if (call.isOutgoing)
        m_output = word(true) + m_handshake.write(QByteArray());
}

QByteArray Opening::word(bool isCaller) const
{
    return wordOf(isCaller ? callerRole : answererRole);
}

QByteArray Opening::takeOutput(qint64 nowMs)
{
    return nowMs < m_outputDueMs ? QByteArray() : std::exchange(m_output, QByteArray());
}

void Opening::receive(const QByteArray& bytes, qint64 nowMs)
{
    m_input.append(bytes);
    while (!hasFailed() && !m_isOver && takeItem(nowMs)) {
    }
}

// False when more bytes are needed.
bool Opening::takeItem(qint64 nowMs)
{
    if (m_input.isEmpty())
        return false;
    switch (m_input.at(0)) {
    case fillerItem: {
        int end = 0;
        while (end < m_input.size() && m_input.at(end) == fillerItem)
            ++end;
        m_input.remove(0, end);
        return true;
    }
    case lastMessageItem:
        if (m_call.isOutgoing || !m_hasWord)
            break;
        return takeMessage(1, nowMs);
    case sealedItem:
        if (!m_call.isOutgoing || !m_handshake.isDone())
            break;
        m_input.remove(0, 1);
        m_isOver = true;
        return true;
    default:
        if (!checkWord())
            return false;
        return takeMessage(wordBytes, nowMs);
    }
    fail(SessionEnd::NotThisProtocol, QStringLiteral("the other side does not speak this protocol"));
    return false;
}

// True when the input begins with the peer's whole word. Fails as soon as it cannot be a word.
bool Opening::checkWord()
{
    const bool isFirstVersion = m_input.at(0) == firstVersionItem;
    const QByteArray said = isFirstVersion ? m_input.mid(firstVersionHeaderBytes) : m_input;
    const int compared = qMin(said.size(), magic.size());
    if (said.left(compared) != magic.left(compared)) {
        fail(SessionEnd::NotThisProtocol, QStringLiteral("the other side does not speak this protocol"));
        return false;
    }
    if (said.size() <= versionAt)
        return false;
    const int version = static_cast<quint8>(said.at(versionAt));
    if (isFirstVersion || version != sessionVersion) {
        fail(SessionEnd::OtherVersion, otherVersion(version));
        // So that the other side can say it as well.
        m_output = word(m_call.isOutgoing);
        m_outputDueMs = 0;
        return false;
    }
    if (said.size() < wordBytes)
        return false;
    if (said.startsWith(word(m_call.isOutgoing))) {
        fail(SessionEnd::NotThisProtocol, QStringLiteral("the line gives back what is said on it"));
        return false;
    }
    // Only the first message of each side has a word before it.
    if (!said.startsWith(word(!m_call.isOutgoing)) || m_hasWord) {
        fail(SessionEnd::ProtocolError, QStringLiteral("the other side does not keep to the protocol (opening)"));
        return false;
    }
    return true;
}

bool Opening::takeMessage(int header, qint64 nowMs)
{
    const int number = m_call.isOutgoing ? 2 : (header == wordBytes ? 1 : 3);
    const int bytes = noiseMessageBytes[number - 1];
    if (m_input.size() < header + bytes)
        return false;
    QByteArray payload;
    if (!m_handshake.read(m_input.mid(header, bytes), &payload)) {
        fail(SessionEnd::Damaged,
             QStringLiteral("the handshake failed: its bytes were changed on the way, or the other side is no %1")
                 .arg(QString::fromLatin1(magic)));
        return false;
    }
    m_input.remove(0, header + bytes);
    m_hasWord = true;
    if (number == 1) {
        m_outputDueMs = nowMs + (m_guard ? m_guard->answerDelayMs() : 0);
        m_output = word(false) + m_handshake.write(QByteArray());
        return true;
    }
    judge();
    if (hasFailed())
        return false;
    m_isOver = number == 3;
    m_outputDueMs = 0;
    m_output = m_call.isOutgoing ? QByteArray(1, lastMessageItem) + m_handshake.write(QByteArray())
                                 : QByteArray(1, sealedItem);
    return true;
}

void Opening::judge()
{
    const QByteArray& key = m_handshake.remotePublicKey();
    if (key == m_identity->publicKey()) {
        fail(SessionEnd::SelfCall,
             QStringLiteral("the line leads back to this installation, or its identity key was copied from here"));
        return;
    }
    m_verdict = m_call.isOutgoing ? m_directory->whoAnswers(m_call.calledAbonent, key) : m_directory->whoCalls(key);
    if (m_verdict.kind != PeerDirectory::Verdict::Kind::Refused)
        return;
    if (m_call.isOutgoing)
        fail(refusalEnd(m_verdict.cause), m_verdict.reason); // it does not learn who we are
    else if (m_guard && m_verdict.cause != PeerDirectory::Verdict::Cause::Failed)
        m_guard->failed();
}

Peer Opening::peer() const
{
    Peer peer;
    peer.abonent = m_verdict.abonent;
    peer.publicKey = m_handshake.remotePublicKey();
    peer.isProved = m_verdict.kind == PeerDirectory::Verdict::Kind::Proved;
    return peer;
}

void Opening::abandon()
{
    if (m_guard && !m_call.isOutgoing && m_hasWord && !m_handshake.isDone() && !hasFailed())
        m_guard->failed();
}

void Opening::fail(SessionEnd end, const QString& reason)
{
    m_end = end;
    m_reason = reason;
    m_output.clear();
    if (!m_call.isOutgoing && m_guard)
        m_guard->failed();
}

SessionEnd refusalEnd(PeerDirectory::Verdict::Cause cause)
{
    using Cause = PeerDirectory::Verdict::Cause;
    switch (cause) {
    case Cause::UnknownKey: return SessionEnd::UnknownKey;
    case Cause::BlockedKey: return SessionEnd::BlockedKey;
    case Cause::WrongKey: return SessionEnd::WrongKey;
    case Cause::Failed: break;
    }
    return SessionEnd::DirectoryFailed;
}

} // namespace host
