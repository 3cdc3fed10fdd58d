// The handshake between two sides over a line that an enemy controls. If a side accepts a message
// (except the first one), the message is from the other side, in its turn, and both sides have seen
// the same messages before.
#include "fuzz/check.h"
#include "fuzz/noisesides.h"

#include <QList>

#include <cstdint>

using fuzz::require;
using host::NoiseHandshake;

namespace {

constexpr int messageCount = 3;
constexpr int maxSteps = 24; // each may need much arithmetic

struct Side
{
    NoiseHandshake handshake;
    QByteArray key;
    QList<QByteArray> transcript; // what it wrote, and what it took
    QList<QByteArray> written;
    bool hasFailed = false;
};

Side sideOf(NoiseHandshake::Role role)
{
    const int number = role == NoiseHandshake::Role::Initiator ? 1 : 2;
    auto identity = std::make_shared<const host::KeyPair>(fuzz::knownPair(number));
    const QByteArray key = identity->publicKey();
    return {NoiseHandshake(role, "prologue", std::move(identity), fuzz::knownPair(number + 10)), key, {}, {}, false};
}

class Line
{
public:
    explicit Line(fuzz::Input& input) : m_input(input) {}

    void run()
    {
        for (int step = 0; step < maxSteps && !m_input.atEnd(); ++step)
            act();
        check(m_initiator, m_responder);
        check(m_responder, m_initiator);
    }

private:
    void act()
    {
        const int choice = m_input.byte();
        Side& side = choice & 1 ? m_initiator : m_responder;
        Side& other = choice & 1 ? m_responder : m_initiator;
        switch (choice / 2 % 5) {
        case 0: write(side); break;
        case 1: read(side, other, other.written.isEmpty() ? QByteArray() : other.written.last()); break;
        case 2:
            read(side, other, fuzz::damaged(m_input, other.written.isEmpty() ? QByteArray() : other.written.last()));
            break;
        case 3: read(side, other, m_input.run(m_input.byte())); break;
        default:
            // Its own comes back, or what was the first on the line.
            read(side, other, side.written.isEmpty() ? m_initiator.written.value(0) : side.written.last());
            break;
        }
    }

    void write(Side& side)
    {
        const bool isItsTurn = side.handshake.isOurTurn();
        const QByteArray payload = m_input.run(m_input.byte());
        const QByteArray message = side.handshake.write(payload);
        require(message.isEmpty() != isItsTurn, "one writes in one's turn");
        side.hasFailed |= message.isEmpty();
        if (!message.isEmpty()) {
            require(message.size() == host::noiseMessageBytes[side.transcript.size()] + payload.size(),
                    "a message is as long as said");
            side.written.append(message);
            side.transcript.append(message);
        }
        require(side.handshake.hasFailed() == side.hasFailed, "what has failed stays so");
    }

    void read(Side& side, Side& other, const QByteArray& message)
    {
        const int number = side.transcript.size();
        QByteArray payload;
        const bool isTaken = side.handshake.read(message, &payload);
        require(!isTaken || !side.hasFailed, "what has failed takes nothing");
        side.hasFailed |= !isTaken;
        require(side.handshake.hasFailed() == side.hasFailed, "what is refused is refused for good");
        if (!isTaken) {
            require(payload.isEmpty(), "nothing is given of what is refused");
            return;
        }
        side.transcript.append(message);
        if (number > 0)
            require(side.transcript == other.transcript.mid(0, number + 1),
                    "what is taken was said to whom it is taken from");
        else
            require(payload == message.mid(host::publicKeyBytes), "the first payload is in the clear");
    }

    void check(Side& side, Side& other)
    {
        NoiseHandshake& handshake = side.handshake;
        require(handshake.isDone() == (!side.hasFailed && side.transcript.size() == messageCount),
                "three messages make it");
        require(handshake.hash().isEmpty() != handshake.isDone(), "there is a hash once it is done");
        require(handshake.remotePublicKey().isEmpty() || handshake.remotePublicKey() == other.key,
                "the key is the other side's");
        host::NoiseCipher sending = handshake.takeSending();
        require(sending.isUsable() == handshake.isDone(), "there are keys once it is done");
        if (!handshake.isDone() || !other.handshake.isDone())
            return;
        require(handshake.hash() == other.handshake.hash(), "both have the same hash");
        host::NoiseCipher receiving = other.handshake.takeReceiving();
        QByteArray plain;
        require(receiving.open(sending.seal("x"), &plain) && plain == "x", "both have the same keys");
    }

    fuzz::Input& m_input;
    Side m_initiator = sideOf(NoiseHandshake::Role::Initiator);
    Side m_responder = sideOf(NoiseHandshake::Role::Responder);
};

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    Line(input).run();
    return 0;
}
