// The handshake that opens a session: Noise_XX_25519_ChaChaPoly_SHA256 (The Noise Protocol
// Framework, revision 34). Three messages; each side proves that it holds the secret half
// of the key it shows, and both get keys that nobody who listens can work out, nor anybody
// who steals the long-term keys later.
//
//   1  initiator -> responder   e                  32 bytes and the payload, in the clear
//   2  responder -> initiator   e, ee, s, es       96 bytes and the payload, sealed
//   3  initiator -> responder   s, se              64 bytes and the payload, sealed
//
// The initiator's key is shown to nobody but the holder of the responder's key, which the
// initiator knows before it sends message 3 and can break off.
#pragma once

#include "host/installation/keypair.h"
#include "host/session/noisecipher.h"
#include "host/session/noisesymmetric.h"

#include <memory>

namespace host {

constexpr int noiseMessageBytes[] = {32, 96, 64}; // of each message, without its payload

// For one thread. Whatever goes wrong, goes wrong for good: the secrets are wiped.
class NoiseHandshake
{
public:
    enum class Role
    {
        Initiator,
        Responder
    };

    // prologue: what both sides must have in common for the handshake to succeed. ephemeral
    // is given only to repeat a handshake whose bytes are known.
    NoiseHandshake(Role role, const QByteArray& prologue, std::shared_ptr<const KeyPair> identity,
                   KeyPair ephemeral = KeyPair::generate());

    [[nodiscard]] bool isOurTurn() const;
    [[nodiscard]] bool isDone() const { return m_messages == messageCount && !m_hasFailed; }
    [[nodiscard]] bool hasFailed() const { return m_hasFailed; }

    // The next message, with a payload that is as secret and as proved as its message says.
    // Empty: it is not our turn, or it would be longer than maxNoiseMessageBytes.
    [[nodiscard]] QByteArray write(const QByteArray& payload);

    // False: not what the other side may send now.
    [[nodiscard]] bool read(const QByteArray& message, QByteArray* payload);

    // Proved. The initiator has it after message 2, the responder after message 3; empty before,
    // and when the handshake has failed.
    [[nodiscard]] const QByteArray& remotePublicKey() const { return m_remoteStatic; }

    // Once it is done: 32 bytes that are the same on both sides, and in no other handshake.
    [[nodiscard]] QByteArray hash() const;

    // Once it is done, once each; later one without a key.
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
