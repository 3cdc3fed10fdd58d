// Two sides of a handshake, brought as far as a test needs them.
#pragma once

#include "host/session/noise.h"

#include <QByteArray>
#include <QList>
#include <gtest/gtest.h>

#include <memory>

namespace noisetools {

// Byte by byte: what is copied by the block lingers in the processor's wide registers, and these
// are saved on the stack now and then.
inline host::SecretBytes copyOf(const host::SecretBytes& secret)
{
    host::SecretBytes copy(secret.size());
    volatile unsigned char* const bytes = copy.data();
    for (int i = 0; i < secret.size(); ++i)
        bytes[i] = secret.data()[i];
    return copy;
}

inline host::KeyPair pairOf(const QByteArray& secret)
{
    host::SecretBytes bytes(secret.size());
    std::copy(secret.begin(), secret.end(), bytes.data());
    return host::KeyPair::fromSecret(std::move(bytes));
}

inline std::shared_ptr<const host::KeyPair> newIdentity()
{
    return std::make_shared<const host::KeyPair>(host::KeyPair::generate());
}

struct Handshakes
{
    std::shared_ptr<const host::KeyPair> initiatorsIdentity = newIdentity();
    std::shared_ptr<const host::KeyPair> respondersIdentity = newIdentity();
    host::NoiseHandshake initiator;
    host::NoiseHandshake responder;
    QList<QByteArray> messages; // that were exchanged

    explicit Handshakes(const QByteArray& prologue = "prologue") : Handshakes(prologue, prologue) {}
    Handshakes(const QByteArray& initiatorsPrologue, const QByteArray& respondersPrologue)
        : initiator(host::NoiseHandshake::Role::Initiator, initiatorsPrologue, initiatorsIdentity),
          responder(host::NoiseHandshake::Role::Responder, respondersPrologue, respondersIdentity)
    {
    }

    host::NoiseHandshake& writerOf(int message) { return message % 2 == 0 ? initiator : responder; }
    host::NoiseHandshake& readerOf(int message) { return message % 2 == 0 ? responder : initiator; }

    // The first count messages, each with its number as payload.
    void exchange(int count)
    {
        for (int message = messages.size(); message < count; ++message) {
            messages.append(writerOf(message).write(QByteArray::number(message)));
            QByteArray payload;
            ASSERT_TRUE(readerOf(message).read(messages.last(), &payload)) << message;
            ASSERT_EQ(payload, QByteArray::number(message));
        }
    }
};

} // namespace noisetools
