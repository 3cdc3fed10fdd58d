// The handshake that opens a session: Noise_XX_25519_ChaChaPoly_SHA256 (The Noise Protocol
// Framework, revision 34). Three messages; each side proves that it holds the secret half
// of the key it shows. Both get session keys that nobody who listens can calculate, not even after
// stealing the long-term keys later.
//
//   1  initiator -> responder   e                  32 bytes and the payload, in the clear
//   2  responder -> initiator   e, ee, s, es       96 bytes and the payload, sealed
//   3  initiator -> responder   s, se              64 bytes and the payload, sealed
//
// The initiator's key is shown only to the holder of the responder's key. The initiator knows whose
// key that is before it sends message 3, and can stop there.
#pragma once

#include "host/installation/keypair.h"
#include "host/session/noisecipher.h"
#include "host/session/noisesymmetric.h"

#include <memory>

namespace host {

constexpr int noiseMessageBytes[] = {32, 96, 64}; // of each message, without its payload

// For one thread. After any failure the handshake cannot go on: its secrets are wiped.
class NoiseHandshake
{
public:
    enum class Role
    {
        Initiator,
        Responder
    };

    // prologue: bytes that must be the same on both sides for the handshake to succeed. ephemeral is
    // given only to repeat a handshake whose bytes are known.
    NoiseHandshake(Role role, const QByteArray& prologue, std::shared_ptr<const KeyPair> identity,
                   KeyPair ephemeral = KeyPair::generate());

    [[nodiscard]] bool isOurTurn() const;
    [[nodiscard]] bool isDone() const { return m_messages == messageCount && !m_hasFailed; }
    [[nodiscard]] bool hasFailed() const { return m_hasFailed; }

    // The next message. The table above says for which messages the payload is sealed. Empty: it is
    // not our turn, or the message would be longer than maxNoiseMessageBytes.
    [[nodiscard]] QByteArray write(const QByteArray& payload);

    // False: the other side may not send this message now.
    [[nodiscard]] bool read(const QByteArray& message, QByteArray* payload);

    // The proved key of the other side. The initiator has it after message 2, the responder after
    // message 3; empty before that, and when the handshake has failed.
    [[nodiscard]] const QByteArray& remotePublicKey() const { return m_remoteStatic; }

    // Call it when the handshake is done: 32 bytes that are the same on both sides, and different in
    // every other handshake.
    [[nodiscard]] QByteArray hash() const;

    // Call each once, when the handshake is done; a second call gives a cipher without a key.
    [[nodiscard]] NoiseCipher takeSending();
    [[nodiscard]] NoiseCipher takeReceiving();

private:
    static constexpr int messageCount = 3;

    bool writeKeys(QByteArray* message);
    bool readKeys(const QByteArray& message, QByteArray* remoteStatic);
    bool readEphemeral(const QByteArray& key);
    bool mixAgreed(const KeyPair& ours, const QByteArray& theirs);
    void endMessage();
    void fail();

    const Role m_role;
    std::shared_ptr<const KeyPair> m_identity;
    KeyPair m_ephemeral;
    QByteArray m_remoteEphemeral;
    QByteArray m_remoteStatic;
    NoiseSymmetric m_symmetric;
    NoiseCipher m_sending;
    NoiseCipher m_receiving;
    int m_messages = 0; // written and read
    bool m_hasFailed = false;
};

} // namespace host
