// The 32-bit cyclic redundancy check of the session's frames.
#pragma once

#include <QByteArray>

namespace host {

// The common CRC-32 (reflected polynomial EDB88320, start and final value all ones).
// Pass the result of an earlier call as previous to go on with it.
[[nodiscard]] quint32 crc32(const QByteArray& data, quint32 previous = 0);

} // namespace host
