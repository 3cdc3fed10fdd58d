#include "host/session/noisesymmetric.h"

#include <sodium.h>

#include <algorithm>

namespace host {

namespace {

constexpr char protocolName[] = "Noise_XX_25519_ChaChaPoly_SHA256";
constexpr int hashBytes = crypto_hash_sha256_BYTES;
static_assert(sizeof protocolName - 1 == hashBytes, "a longer name would have to be hashed");
static_assert(noiseKeyBytes == hashBytes && noiseKeyBytes == crypto_auth_hmacsha256_BYTES);

// An HMAC-SHA256 whose state is wiped.
class Hmac
{
public:
    explicit Hmac(const SecretBytes& key)
    {
        crypto_auth_hmacsha256_init(&m_state, key.data(), static_cast<size_t>(key.size()));
    }
    ~Hmac() { sodium_memzero(&m_state, sizeof m_state); }
    Hmac(const Hmac&) = delete;
    Hmac& operator=(const Hmac&) = delete;

    void update(const SecretBytes& bytes)
    {
        crypto_auth_hmacsha256_update(&m_state, bytes.data(), static_cast<size_t>(bytes.size()));
    }
    void update(unsigned char byte) { crypto_auth_hmacsha256_update(&m_state, &byte, 1); }

    SecretBytes final()
    {
        SecretBytes code(crypto_auth_hmacsha256_BYTES);
        crypto_auth_hmacsha256_final(&m_state, code.data());
        return code;
    }

private:
    crypto_auth_hmacsha256_state m_state;
};

// The key derivation of RFC 5869 without an info text, its first two blocks.
void derive(const SecretBytes& salt, const SecretBytes& secret, SecretBytes* first, SecretBytes* second)
{
    Hmac extract(salt);
    extract.update(secret);
    const SecretBytes temporary = extract.final();

    Hmac one(temporary);
    one.update(1);
    *first = one.final();

    Hmac two(temporary);
    two.update(*first);
    two.update(2);
    *second = two.final();
    wipeStack();
}

} // namespace

NoiseSymmetric::NoiseSymmetric(const QByteArray& prologue) : m_hash(protocolName, hashBytes), m_chainingKey(hashBytes)
{
    std::copy_n(protocolName, hashBytes, m_chainingKey.data());
    mixHash(prologue);
}

void NoiseSymmetric::mixHash(const QByteArray& data)
{
    const QByteArray both = m_hash + data;
    crypto_hash_sha256(reinterpret_cast<unsigned char*>(m_hash.data()),
                       reinterpret_cast<const unsigned char*>(both.constData()),
                       static_cast<unsigned long long>(both.size()));
}

void NoiseSymmetric::mixKey(const SecretBytes& secret)
{
    SecretBytes nextChainingKey;
    SecretBytes key;
    derive(m_chainingKey, secret, &nextChainingKey, &key);
    m_chainingKey = std::move(nextChainingKey);
    m_cipher = NoiseCipher(std::move(key));
}

QByteArray NoiseSymmetric::encryptAndHash(const QByteArray& plain)
{
    const QByteArray sealed = hasKey() ? m_cipher.seal(plain, m_hash) : plain;
    mixHash(sealed);
    return sealed;
}

bool NoiseSymmetric::decryptAndHash(const QByteArray& sealed, QByteArray* plain)
{
    if (!hasKey())
        *plain = sealed;
    else if (!m_cipher.open(sealed, plain, m_hash))
        return false;
    mixHash(sealed);
    return true;
}

void NoiseSymmetric::split(NoiseCipher* fromInitiator, NoiseCipher* fromResponder)
{
    SecretBytes first;
    SecretBytes second;
    derive(m_chainingKey, SecretBytes(), &first, &second);
    *fromInitiator = NoiseCipher(std::move(first));
    *fromResponder = NoiseCipher(std::move(second));
    wipe();
}

void NoiseSymmetric::wipe()
{
    m_chainingKey.wipe();
    m_cipher.wipe();
}

} // namespace host
