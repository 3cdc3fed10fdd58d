#include "sim/modem/commandreader.h"

#include <QChar>

namespace sim {

namespace {

char upperCase(char byte)
{
    return QChar::fromLatin1(byte).toUpper().toLatin1();
}

} // namespace

CommandReader::Result CommandReader::add(char byte, int endByte, int eraseByte)
{
    return m_state == State::Reading ? edit(byte, endByte, eraseByte) : begin(byte);
}

CommandReader::Result CommandReader::begin(char byte)
{
    const bool gotA = m_state == State::GotA;
    const char upper = upperCase(byte);
    m_state = upper == 'A' ? State::GotA : State::Idle;
    if (gotA && upper == '/')
        return Result::Command;
    if (gotA && upper == 'T') {
        m_state = State::Reading;
        m_typed.clear();
        m_isTooLong = false;
    }
    return Result::Unfinished;
}

CommandReader::Result CommandReader::edit(char byte, int endByte, int eraseByte)
{
    const int value = static_cast<unsigned char>(byte);
    if (value == endByte) {
        m_state = State::Idle;
        if (m_isTooLong)
            return Result::TooLong;
        m_command = m_typed;
        return Result::Command;
    }
    if (value == eraseByte)
        m_typed.chop(1);
    else if (value > ' ' && m_typed.size() < maxLength)
        m_typed += upperCase(byte);
    else if (value > ' ')
        m_isTooLong = true;
    return Result::Unfinished;
}

} // namespace sim
