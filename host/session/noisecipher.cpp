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

unsigned char* bytesOf(QByteArray& bytes)
{
    return reinterpret_cast<unsigned char*>(bytes.data());
}

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
    if (m_nextNonce == lastNonce)
        wipe();
    if (!isUsable() || plain.size() > maxNoiseMessageBytes - noiseTagBytes)
        return QByteArray();
    QByteArray sealed(plain.size() + noiseTagBytes, Qt::Uninitialized);
    const Nonce nonce(m_nextNonce++);
    crypto_aead_chacha20poly1305_ietf_encrypt(bytesOf(sealed), nullptr, bytesOf(plain), sizeOf(plain),
                                              bytesOf(associated), sizeOf(associated), nullptr, nonce.bytes,
                                              m_key.data());
    wipeStack();
    return sealed;
}

bool NoiseCipher::open(const QByteArray& sealed, QByteArray* plain, const QByteArray& associated)
{
    plain->clear();
    if (m_nextNonce == lastNonce || sealed.size() < noiseTagBytes || sealed.size() > maxNoiseMessageBytes)
        wipe();
    if (!isUsable())
        return false;
    QByteArray opened(sealed.size() - noiseTagBytes, Qt::Uninitialized);
    const Nonce nonce(m_nextNonce++);
    const bool isGenuine = crypto_aead_chacha20poly1305_ietf_decrypt(
                               bytesOf(opened), nullptr, nullptr, bytesOf(sealed), sizeOf(sealed), bytesOf(associated),
                               sizeOf(associated), nonce.bytes, m_key.data()) == 0;
    wipeStack();
    if (isGenuine)
        *plain = opened;
    else
        wipe();
    return isGenuine;
}

} // namespace host
