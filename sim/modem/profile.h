// The settings of a modem: the choices of its command line and the S registers. A modem keeps
// two, the one in use and the one stored by AT&W.
#pragma once

#include <QByteArray>
#include <QtGlobal>

#include <array>

namespace sim {

// The S registers that the modem acts on; the others are only kept.
enum Register : int
{
    RingsToAnswer = 0,
    RingCount = 1,
    EscapeByte = 2,
    CarriageReturn = 3,
    LineFeed = 4,
    Backspace = 5,
    CarrierWaitSeconds = 7,
    CommaPauseSeconds = 8,
    GuardTime = 12, // fiftieths of a second
};

struct Profile
{
    static constexpr int registerCount = 100;

    Profile(); // as AT&F sets it

    bool echo = true;
    bool verbose = true;
    bool quiet = false;
    int resultLevel = 4; // X
    bool carrierFollows = true; // &C1
    int dtrAction = 2; // &D
    std::array<quint8, registerCount> registers{};

    quint8& at(int index) { return registers[static_cast<std::size_t>(index)]; }
    int at(int index) const { return registers[static_cast<std::size_t>(index)]; }
    char byteAt(int index) const { return static_cast<char>(at(index)); }

    qint64 guardNs() const;
    // As AT&V shows it.
    QByteArray toText() const;
};

} // namespace sim
