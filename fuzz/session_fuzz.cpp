// The session protocol with a hostile peer. Whatever it says: a stored message has the announced
// hash, only whole frames with the messages' own bytes are sent, and the session ends.
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "host/session/session.h"
#include "rig/host/memorystore.h"
#include "rig/host/sealedpeer.h"
#include "rig/seededrandomness.h"

#include <QByteArray>
#include <QCryptographicHash>

#include <array>
#include <cstdint>
#include <map>

using fuzz::require;
using namespace host;

namespace {

constexpr quint64 firstQueuedId = 0x1001;
constexpr quint64 firstStandingId = 0x2001;
constexpr qint64 longestSilenceMs = 1000 * 1000;

QByteArray pattern(int size, int seed)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = static_cast<char>(i * 31 + seed * 7 + (i >> 8));
    return bytes;
}

QByteArray sha256(const QByteArray& bytes)
{
    return QCryptographicHash::hash(bytes, QCryptographicHash::Sha256);
}

// Compares what the session says with the messages it has.
class Listener
{
public:
    Listener(const std::map<quint64, QByteArray>* messages, rig::SealedPeer* peer) : m_messages(messages), m_peer(peer)
    {
    }

    void hear(const QByteArray& bytes)
    {
        m_peer->append(bytes);
        Frame frame;
        for (;;) {
            switch (m_peer->next(&frame)) {
            case FrameReader::Result::None: return;
            case FrameReader::Result::Damaged: require(false, "the session's frames are whole"); return;
            case FrameReader::Result::Frame: check(frame); break;
            }
        }
    }

    bool isStopped() const { return m_isStopped; }
    bool wasOffered() const { return m_wasOffered; }

private:
    void check(const Frame& frame)
    {
        require(!m_isStopped, "nothing comes after Stop");
        switch (frame.type) {
        case FrameType::Offer: {
            require(!m_isOffered, "one message at a time");
            m_wasOffered = true;
            OfferFrame offer;
            require(offer.decode(frame.payload), "an offer can be read");
            const auto found = m_messages->find(offer.messageId);
            require(found != m_messages->end(), "only queued messages are offered");
            m_content = found->second;
            require(offer.size == m_content.size() && offer.offset <= offer.size, "the offer has the message's size");
            require(offer.sha256 == sha256(m_content), "the offer has the message's hash");
            m_position = static_cast<int>(offer.offset);
            m_isOffered = m_position < m_content.size();
            break;
        }
        case FrameType::Data:
            require(m_isOffered, "data belongs to an offer");
            require(m_content.mid(m_position, frame.payload.size()) == frame.payload, "data is the message's");
            m_position += frame.payload.size();
            m_isOffered = m_position < m_content.size();
            break;
        case FrameType::Abort:
            require(m_isOffered, "only what is under way is broken off");
            m_isOffered = false;
            break;
        case FrameType::Stop: m_isStopped = true; break;
        case FrameType::Hello:
        case FrameType::State:
        case FrameType::Stored:
        case FrameType::Refused:
        case FrameType::Settled:
        case FrameType::Alive:
        case FrameType::Finish:
        case FrameType::Continue:
        case FrameType::Bye:
        case FrameType::ByeYes:
        case FrameType::ByeNo: break;
        }
    }

    const std::map<quint64, QByteArray>* m_messages; // not owned
    rig::SealedPeer* m_peer; // not owned
    bool m_wasOffered = false;
    QByteArray m_content;
    int m_position = 0;
    bool m_isOffered = false;
    bool m_isStopped = false;
};

class HostilePeer
{
public:
    explicit HostilePeer(fuzz::Input& input) : m_input(input)
    {
        const int choice = m_input.byte();
        for (int i = 0; i < choice % 4; ++i)
            queue(i, pattern(i * 700, i));
        for (int i = 0; i < choice / 4 % 4; ++i)
            m_store.standing[firstStandingId + static_cast<quint64>(i)] = standingPart(i);
        SessionSettings settings;
        settings.abonentName = QStringLiteral("Боб");
        settings.identity = rig::testKey(1);
        // Usually proved, otherwise unproved or refused.
        m_isProved = choice / 16 % 4 < 2;
        if (m_isProved)
            m_directory.everybodyElse = QStringLiteral("Mallory");
        m_directory.acceptsUnknown = choice / 16 % 4 == 2;
        m_session = std::make_unique<Session>(
            settings, SessionCall{}, &m_directory, m_store.forSessions(),
            [this](const SessionEvent& event) { onEvent(event); }, m_nowMs);
    }

    void run()
    {
        require(m_peer.shakeHands(m_session.get(), m_nowMs), "whoever has a key can shake hands");
        while (!m_input.atEnd() && !m_session->isFinished())
            act();
        finish();
    }

private:
    enum Action
    {
        AnyFrame,
        AnyBytes,
        Hello,
        EmptyState,
        StateWithPart,
        Message,
        ResumedMessage,
        LargeData,
        Take,
        Pass,
        StoreFault,
        KeepAlive,
        Stop,
        Acknowledge,
        Ending,
        ActionCount
    };

    static QByteArray standingPart(int index) { return pattern(100 + index * 900, 50 + index); }

    void queue(int index, const QByteArray& content)
    {
        rig::MemoryStore::Outgoing entry;
        entry.message.id = firstQueuedId + static_cast<quint64>(index);
        entry.message.fileName = QStringLiteral("queued %1").arg(index);
        entry.message.size = content.size();
        entry.message.sha256 = sha256(content);
        entry.content = content;
        m_store.outgoing.push_back(entry);
        m_queued[entry.message.id] = content;
    }

    void act()
    {
        const int choice = m_input.byte();
        switch (static_cast<Action>(choice % ActionCount)) {
        case AnyFrame: {
            const int type = m_input.byte();
            say(static_cast<FrameType>(type), m_input.run(m_input.word() % maxFramePayloadBytes));
            break;
        }
        case AnyBytes: hear(m_input.run(m_input.byte())); break;
        case Hello: sayHello(); break;
        case EmptyState: {
            StateFrame state;
            state.isLast = choice < 128;
            say(FrameType::State, state.encode());
            break;
        }
        case StateWithPart: sayStateWithPart(); break;
        case Message: sendMessage(choice); break;
        case ResumedMessage: resumeMessage(choice); break;
        case LargeData: say(FrameType::Data, pattern(1 + m_input.word() % maxFramePayloadBytes, choice)); break;
        case Take: m_listener.hear(m_session->takeOutput(m_input.word() % 4000, m_nowMs)); break;
        case Pass:
            m_nowMs += m_input.word();
            m_session->advance(m_nowMs);
            break;
        case StoreFault: setStoreFault(choice); break;
        case KeepAlive: m_session->setKeepAlive(choice < 128); break;
        case Stop: m_session->stop(QStringLiteral("stopped"), m_nowMs); break;
        case Acknowledge: acknowledge(choice); break;
        case Ending: sayEnding(); break;
        case ActionCount: break;
        }
    }

    void sayHello()
    {
        HelloFrame hello;
        hello.abonentName = QString::fromUtf8(m_input.run(m_input.byte() % 64));
        say(FrameType::Hello, hello.encode());
    }

    void sayStateWithPart()
    {
        StateFrame state;
        MessagePart part;
        part.messageId = firstQueuedId + static_cast<quint64>(m_input.byte() % 4);
        part.length = m_input.word() % 3000;
        part.sha256 = sha256(m_queued[part.messageId].left(static_cast<int>(part.length)));
        state.parts.append(part);
        for (int ids = m_input.byte() % 4; ids > 0; --ids)
            state.storedIds.append(firstQueuedId + static_cast<quint64>(m_input.byte() % 4));
        say(FrameType::State, state.encode());
    }

    void resumeMessage(int choice)
    {
        const int index = m_input.byte() % 4;
        const QByteArray part = standingPart(index);
        const QByteArray more = m_input.run(m_input.byte());
        offer(firstStandingId + static_cast<quint64>(index), part + more, choice < 128 ? part.size() : m_input.word());
        if (!more.isEmpty())
            say(FrameType::Data, more);
    }

    void setStoreFault(int choice)
    {
        const std::array<QString*, 3> faults{&m_store.openError, &m_store.appendError, &m_store.storeError};
        *faults[static_cast<std::size_t>(m_input.byte() % 3)] =
            choice < 128 ? QStringLiteral("the disk is full") : QString();
        m_store.refuseBegin = m_input.byte() % 4 == 3;
    }

    void acknowledge(int choice)
    {
        const int numbers = m_input.byte() % 4;
        QVector<quint64> offers;
        for (int i = 0; i < numbers; ++i)
            offers.append(static_cast<quint64>(m_input.byte() % 8));
        say(choice < 128 ? FrameType::Stored : FrameType::Settled, encodeNumbers(offers));
    }

    void sayEnding()
    {
        constexpr std::array<FrameType, 5> endings{FrameType::Finish, FrameType::Bye, FrameType::ByeYes,
                                                   FrameType::ByeNo, FrameType::Continue};
        say(endings[static_cast<std::size_t>(m_input.byte()) % endings.size()], QByteArray());
    }

    void sendMessage(int choice)
    {
        const int id = m_input.byte();
        const QByteArray content = m_input.run(m_input.byte());
        offer(static_cast<quint64>(id), content, 0);
        const int cut = choice < 128 ? content.size() : content.size() / 2;
        for (const QByteArray& piece : {content.left(cut), content.mid(cut)}) {
            if (!piece.isEmpty())
                say(FrameType::Data, piece);
        }
    }

    void offer(quint64 id, const QByteArray& content, qint64 offset)
    {
        OfferFrame frame;
        frame.messageId = id;
        frame.size = content.size();
        frame.offset = offset;
        frame.sha256 = sha256(content);
        frame.fileName = QStringLiteral("../hostile");
        say(FrameType::Offer, frame.encode());
    }

    void say(FrameType type, const QByteArray& payload) { hear(m_peer.seal(type, payload)); }

    void hear(const QByteArray& bytes)
    {
        m_saidBytes += bytes.size();
        m_session->receive(bytes, m_nowMs);
    }

    void onEvent(const SessionEvent& event)
    {
        if (event.kind == SessionEvent::Kind::FileStored) {
            require(m_store.inbox.size() == ++m_stored, "what is told stored is in the inbox");
            const QByteArray& content = m_store.inbox.back().content;
            require(event.file.sha256 == sha256(content) && event.file.sizeBytes == content.size(),
                    "what is stored has the hash announced");
        }
    }

    void finish()
    {
        for (QByteArray piece; !(piece = m_session->takeOutput(1000, m_nowMs)).isEmpty();)
            m_listener.hear(piece);
        if (m_input.left() % 2 == 0) {
            // Silence ends every session, without anybody's help.
            const qint64 endMs = m_nowMs + longestSilenceMs;
            for (; !m_session->isFinished() && m_nowMs < endMs; m_nowMs += 50 * 1000) {
                m_session->advance(m_nowMs);
                m_listener.hear(m_session->takeOutput(1 << 20, m_nowMs));
            }
        } else {
            m_session->connectionLost();
        }
        require(m_session->isFinished(), "every session ends");
        require(m_isProved || !m_listener.wasOffered(), "nothing is handed out to a peer that is not proved");
        require(m_isProved || m_directory.acceptsUnknown || m_store.inbox.empty(),
                "nothing is taken from a refused peer");
        require(m_session->endedWell() || !m_session->endReason().isEmpty(), "a session that ended badly says why");
        for (const auto& entry : m_store.outgoing)
            require(!entry.claimedBy, "what was not sent is free again");
        require(m_store.inbox.size() == m_stored, "every message in the inbox was told");
        qint64 bytes = 0;
        for (const auto& part : m_store.standing)
            bytes += part.second.size();
        require(bytes <= m_saidBytes + 4 * standingPart(3).size(), "no more stands than came in");
    }

    fuzz::Input& m_input;
    rig::MemoryStore m_store;
    std::map<quint64, QByteArray> m_queued;
    rig::TestDirectory m_directory;
    rig::SealedPeer m_peer{true};
    Listener m_listener{&m_queued, &m_peer};
    std::unique_ptr<Session> m_session;
    bool m_isProved = false;
    qint64 m_nowMs = 1000;
    qint64 m_saidBytes = 0;
    std::size_t m_stored = 0;
};

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    rig::seedRandomness(0); // the same input is the same run
    fuzz::Input input(data, size);
    HostilePeer(input).run();
    return 0;
}
