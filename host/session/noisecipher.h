// The encrypted bytes of one direction: ChaCha20-Poly1305 with a counter that is not sent,
// so that a message opens only whole, unchanged, and in its turn.
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

    // False: without a key, or done with for good.
    [[nodiscard]] bool isUsable() const { return !m_key.isEmpty(); }

    // noiseTagBytes longer than plain. Empty when that is not possible: plain is longer than
    // maxNoiseMessageBytes - noiseTagBytes, or the counter is used up; the latter is for good.
    [[nodiscard]] QByteArray seal(const QByteArray& plain, const QByteArray& associated = QByteArray());

    // False: not the next message of this direction. That is for good, the key is wiped.
    [[nodiscard]] bool open(const QByteArray& sealed, QByteArray* plain, const QByteArray& associated = QByteArray());

    // The same without a copy. bytes: plainBytes of them, and room for the tag behind them. False when
    // that is not possible; then nothing is changed.
    [[nodiscard]] bool sealInPlace(char* bytes, int plainBytes, const QByteArray& associated = QByteArray());

    // What is opened stands in the beginning of bytes. Where that fails, they are of no use any more.
    [[nodiscard]] bool openInPlace(char* bytes, int sealedBytes, const QByteArray& associated = QByteArray());

    void wipe() { m_key.wipe(); }

private:
    SecretBytes m_key;
    quint64 m_nextNonce = 0;
};

} // namespace host
