// A key of Curve25519 and its secret half.
#pragma once

#include "host/installation/secretbytes.h"

#include <QByteArray>

namespace host {

constexpr int publicKeyBytes = 32;
constexpr int secretKeyBytes = 32;

// Of the right length, in the one spelling that every key has, and none of the few points
// with which any two sides agree on the same secret, known to everybody.
[[nodiscard]] bool isUsablePublicKey(const QByteArray& key);

// Moving leaves a pair without keys behind.
class KeyPair
{
public:
    [[nodiscard]] static KeyPair generate();
    [[nodiscard]] static KeyPair fromSecret(SecretBytes secret); // secretKeyBytes of it

    [[nodiscard]] bool isEmpty() const { return m_secret.isEmpty(); }
    [[nodiscard]] const QByteArray& publicKey() const { return m_public; }
    [[nodiscard]] const SecretBytes& secretKey() const { return m_secret; }

    // The secret that both sides can work out from the other's public key; empty when
    // theirKey is not usable.
    [[nodiscard]] SecretBytes agree(const QByteArray& theirKey) const;

    void wipe();

private:
    SecretBytes m_secret;
    QByteArray m_public;
};

} // namespace host
