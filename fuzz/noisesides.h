// What the targets of the handshake share: keys that are the same in every run, and bytes
// that are nearly what the other side said.
#pragma once

#include "fuzz/input.h"
#include "host/session/noise.h"

#include <QByteArray>

#include <algorithm>
#include <memory>

namespace fuzz {

inline host::KeyPair knownPair(int number)
{
    host::SecretBytes secret(host::secretKeyBytes);
    std::fill_n(secret.data(), secret.size(), static_cast<unsigned char>(number));
    return host::KeyPair::fromSecret(std::move(secret));
}

// The bytes with some changed, cut, added; now and then, as they were.
inline QByteArray damaged(Input& input, QByteArray bytes)
{
    for (int changes = input.byte() % 4; changes > 0; --changes) {
        const int position = bytes.isEmpty() ? 0 : input.word() % bytes.size();
        switch (input.byte() % 4) {
        case 0:
            if (!bytes.isEmpty())
                bytes[position] = static_cast<char>(bytes.at(position) ^ (1 << input.byte() % 8));
            break;
        case 1: bytes.truncate(position); break;
        case 2: bytes.insert(position, input.run(input.byte() % 40)); break;
        default: bytes.remove(position, input.byte() % 40); break;
        }
    }
    return bytes;
}

} // namespace fuzz
