// The encrypted bytes of one direction: ChaCha20-Poly1305 with a counter that is not sent,
// so that a message can be opened only if it is whole, unchanged and the next one.
#pragma once

#include "host/installation/secretbytes.h"

#include <QByteArray>

namespace host {

constexpr int noiseKeyBytes = 32;
constexpr int noiseTagBytes = 16;
constexpr int maxNoiseMessageBytes = 65535; // sealed

class NoiseCipher
{
public:
    NoiseCipher() = default; // without a key: seals and opens nothing
    explicit NoiseCipher(SecretBytes key, quint64 nextNonce = 0);

    // False: there is no key, or it was wiped.
    [[nodiscard]] bool isUsable() const { return !m_key.isEmpty(); }

    // noiseTagBytes longer than plain. Empty when that is not possible: plain is longer than
    // maxNoiseMessageBytes - noiseTagBytes, or the counter is used up (then nothing can be sealed any
    // more).
    [[nodiscard]] QByteArray seal(const QByteArray& plain, const QByteArray& associated = QByteArray());

    // False: this is not the next message of this direction. The key is wiped then, and nothing can be
    // opened any more.
    [[nodiscard]] bool open(const QByteArray& sealed, QByteArray* plain, const QByteArray& associated = QByteArray());

    // The same without a copy. bytes: plainBytes of plain text and room for the tag after them. False
    // when that is not possible; then nothing is changed.
    [[nodiscard]] bool sealInPlace(char* bytes, int plainBytes, const QByteArray& associated = QByteArray());

    // On success the plain text is at the beginning of bytes; on failure their content is lost.
    [[nodiscard]] bool openInPlace(char* bytes, int sealedBytes, const QByteArray& associated = QByteArray());

    void wipe() { m_key.wipe(); }

private:
    SecretBytes m_key;
    quint64 m_nextNonce = 0;
};

} // namespace host
