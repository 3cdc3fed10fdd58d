#include "host/installation/keypair.h"

#include <sodium.h>

namespace host {

namespace {

static_assert(publicKeyBytes == crypto_scalarmult_BYTES);
static_assert(secretKeyBytes == crypto_scalarmult_SCALARBYTES);

const unsigned char* bytesOf(const QByteArray& key)
{
    return reinterpret_cast<const unsigned char*>(key.constData());
}

// A coordinate is a number below 2^255 - 19. The curve also accepts greater numbers and takes their
// remainder. So one key could be written in several ways, and only one of them would be blocked.
bool isCanonical(const QByteArray& key)
{
    const unsigned char* const bytes = bytesOf(key);
    if (bytes[publicKeyBytes - 1] != 0x7F)
        return bytes[publicKeyBytes - 1] < 0x7F;
    for (int position = publicKeyBytes - 2; position > 0; --position) {
        if (bytes[position] != 0xFF)
            return true;
    }
    return bytes[0] < 0xED;
}

} // namespace

bool isUsablePublicKey(const QByteArray& key)
{
    if (key.size() != publicKeyBytes || !isCanonical(key))
        return false;
    startCryptography();
    // Any scalar shows whether the point has a small order: the library makes scalars multiples of the
    // small orders, and refuses a product that is zero.
    const unsigned char scalar[crypto_scalarmult_SCALARBYTES] = {1};
    unsigned char product[crypto_scalarmult_BYTES];
    return crypto_scalarmult(product, scalar, bytesOf(key)) == 0;
}

KeyPair KeyPair::generate()
{
    SecretBytes secret(secretKeyBytes);
    randombytes_buf(secret.data(), secretKeyBytes);
    return fromSecret(std::move(secret));
}

KeyPair KeyPair::fromSecret(SecretBytes secret)
{
    Q_ASSERT(secret.size() == secretKeyBytes);
    KeyPair pair;
    pair.m_public.resize(publicKeyBytes);
    crypto_scalarmult_base(reinterpret_cast<unsigned char*>(pair.m_public.data()), secret.data());
    wipeStack();
    pair.m_secret = std::move(secret);
    return pair;
}

SecretBytes KeyPair::agree(const QByteArray& theirKey) const
{
    if (isEmpty() || theirKey.size() != publicKeyBytes || !isCanonical(theirKey))
        return SecretBytes();
    SecretBytes shared(crypto_scalarmult_BYTES);
    const bool isAgreed = crypto_scalarmult(shared.data(), m_secret.data(), bytesOf(theirKey)) == 0;
    wipeStack();
    return isAgreed ? std::move(shared) : SecretBytes();
}

void KeyPair::wipe()
{
    m_secret.wipe();
    m_public.clear();
}

} // namespace host
