// What both sides of a handshake keep in step: the hash of all that was said so far and the
// keys that follow from all secrets agreed on so far.
#pragma once

#include "host/installation/secretbytes.h"
#include "host/session/noisecipher.h"

#include <QByteArray>

namespace host {

class NoiseSymmetric
{
public:
    explicit NoiseSymmetric(const QByteArray& prologue);

    void mixHash(const QByteArray& data);
    void mixKey(const SecretBytes& secret);

    // Before the first mixKey() in the clear.
    [[nodiscard]] QByteArray encryptAndHash(const QByteArray& plain);
    [[nodiscard]] bool decryptAndHash(const QByteArray& sealed, QByteArray* plain);
    [[nodiscard]] bool hasKey() const { return m_cipher.isUsable(); }

    // Ends it: the keys of the two directions. No secret stays in this object.
    void split(NoiseCipher* fromInitiator, NoiseCipher* fromResponder);

    [[nodiscard]] const QByteArray& hash() const { return m_hash; }
    void wipe();

private:
    QByteArray m_hash;
    SecretBytes m_chainingKey;
    NoiseCipher m_cipher;
};

} // namespace host
