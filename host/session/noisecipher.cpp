#include "host/session/noisecipher.h"

#include <QtEndian>
#include <sodium.h>

#include <limits>

namespace host {

namespace {

static_assert(noiseKeyBytes == crypto_aead_chacha20poly1305_ietf_KEYBYTES);
static_assert(noiseTagBytes == crypto_aead_chacha20poly1305_ietf_ABYTES);

// Reserved: no message may have it.
constexpr quint64 lastNonce = std::numeric_limits<quint64>::max();

// Four bytes of zero, then the counter, low byte first.
struct Nonce
{
    unsigned char bytes[crypto_aead_chacha20poly1305_ietf_NPUBBYTES] = {};

    explicit Nonce(quint64 counter) { qToLittleEndian(counter, bytes + 4); }
};

const unsigned char* bytesOf(const QByteArray& bytes)
{
    return reinterpret_cast<const unsigned char*>(bytes.constData());
}

unsigned long long sizeOf(const QByteArray& bytes)
{
    return static_cast<unsigned long long>(bytes.size());
}

} // namespace

NoiseCipher::NoiseCipher(SecretBytes key, quint64 nextNonce) : m_key(std::move(key)), m_nextNonce(nextNonce)
{
    Q_ASSERT(m_key.size() == noiseKeyBytes);
}

QByteArray NoiseCipher::seal(const QByteArray& plain, const QByteArray& associated)
{
    QByteArray bytes = plain;
    bytes.resize(plain.size() + noiseTagBytes);
    return sealInPlace(bytes.data(), plain.size(), associated) ? bytes : QByteArray();
}

bool NoiseCipher::open(const QByteArray& sealed, QByteArray* plain, const QByteArray& associated)
{
    QByteArray bytes(sealed.constData(), sealed.size());
    const bool isGenuine = openInPlace(bytes.data(), bytes.size(), associated);
    *plain = isGenuine ? bytes.left(bytes.size() - noiseTagBytes) : QByteArray();
    return isGenuine;
}

bool NoiseCipher::sealInPlace(char* bytes, int plainBytes, const QByteArray& associated)
{
    if (m_nextNonce == lastNonce)
        wipe();
    if (!isUsable() || plainBytes > maxNoiseMessageBytes - noiseTagBytes)
        return false;
    const Nonce nonce(m_nextNonce++);
    auto* const at = reinterpret_cast<unsigned char*>(bytes);
    crypto_aead_chacha20poly1305_ietf_encrypt(at, nullptr, at, static_cast<unsigned long long>(plainBytes),
                                              bytesOf(associated), sizeOf(associated), nullptr, nonce.bytes,
                                              m_key.data());
    wipeStack();
    return true;
}

bool NoiseCipher::openInPlace(char* bytes, int sealedBytes, const QByteArray& associated)
{
    if (m_nextNonce == lastNonce || sealedBytes < noiseTagBytes || sealedBytes > maxNoiseMessageBytes)
        wipe();
    if (!isUsable())
        return false;
    const Nonce nonce(m_nextNonce++);
    auto* const at = reinterpret_cast<unsigned char*>(bytes);
    const bool isGenuine = crypto_aead_chacha20poly1305_ietf_decrypt(
                               at, nullptr, nullptr, at, static_cast<unsigned long long>(sealedBytes),
                               bytesOf(associated), sizeOf(associated), nonce.bytes, m_key.data()) == 0;
    wipeStack();
    if (!isGenuine)
        wipe();
    return isGenuine;
}

} // namespace host
