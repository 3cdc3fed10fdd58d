// Puts an AT command together, byte by byte: AT, what is typed and corrected behind it, and the
// byte that ends it; or A/, which is the last command again.
#pragma once

#include <QByteArray>

namespace sim {

class CommandReader
{
public:
    static constexpr int maxLength = 255;

    enum class Result
    {
        Unfinished,
        Command, // command() is to be executed
        TooLong
    };

    // endByte: S3, ends a command. eraseByte: S5, takes back the byte before it.
    Result add(char byte, int endByte, int eraseByte);
    // What stands behind AT: upper case, without blanks.
    const QByteArray& command() const { return m_command; }
    // Forgets a command that has begun, not the last one.
    void reset() { m_state = State::Idle; }

private:
    enum class State
    {
        Idle,
        GotA,
        Reading
    };

    Result begin(char byte);
    Result edit(char byte, int endByte, int eraseByte);

    State m_state = State::Idle;
    QByteArray m_typed;
    bool m_isTooLong = false;
    QByteArray m_command;
};

} // namespace sim
