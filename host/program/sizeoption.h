// Sizes on the command line.
#pragma once

#include <QString>

#include <optional>

namespace host {

// "1000", "64K", "500M", "8G", "2T" in bytes; each letter means 1024 times the one before it.
// Null for anything else, and for more than a message can have.
[[nodiscard]] std::optional<qint64> sizeFromText(const QString& text);

} // namespace host
