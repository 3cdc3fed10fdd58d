// Public keys as people hand them over and compare them.
#pragma once

#include <QByteArray>
#include <QString>

namespace host {

// Six groups of five digits with dashes, to be read out on the telephone. Two keys with the same
// one are out of reach (100 bits).
[[nodiscard]] QString keyFingerprint(const QByteArray& publicKey);

// The whole key as one word of digits and Latin letters, with a check against typing errors.
[[nodiscard]] QString keyText(const QByteArray& publicKey);

// What keyText() wrote and a person typed: small letters, blanks and dashes anywhere, O for 0, I and
// L for 1. Empty, and *error for the user, when it is no usable key.
[[nodiscard]] QByteArray keyFromText(const QString& text, QString* error);

} // namespace host
