// Slows down callers who try keys: after each failed handshake the process answers later, by some
// seconds at most, until the failure is forgotten. Nobody is locked out.
#pragma once

#include <QMutex>

#include <functional>

namespace host {

// Any thread may call any operation.
class HandshakeGuard
{
public:
    using Clock = std::function<qint64()>; // a steady one, in milliseconds

    explicit HandshakeGuard(Clock clock = {});

    // A caller did not prove that it may call.
    void failed();

    // How long to wait before the next caller's handshake is answered.
    [[nodiscard]] int answerDelayMs() const;

    // Since the start of the process.
    [[nodiscard]] int failures() const;

    static constexpr int firstDelayMs = 500; // doubled with each further failure
    static constexpr int maxDelayMs = 8000;
    static constexpr qint64 forgetMs = 60000; // after each such time one failure is forgotten

private:
    [[nodiscard]] int remembered(qint64 nowMs) const;

    const Clock m_clock;
    mutable QMutex m_mutex; // guards the rest
    int m_failures = 0;
    int m_remembered = 0; // at m_sinceMs
    qint64 m_sinceMs = 0;
};

} // namespace host
