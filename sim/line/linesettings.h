// A telephone line as a value: what it does to the bytes of a call.
#pragma once

#include <QString>
#include <QtGlobal>

namespace sim {

constexpr int bitsPerByte = 10; // on the line: start bit, eight data bits, stop bit

// Bursts of noise. Intervals are counted in the bits that the line carries, so that the
// same bytes and the same seed always meet the same noise, however fast the machine is.
struct BurstSettings
{
    double meanIntervalSeconds = 0; // of a busy line, from the end of a burst to the next one; 0: no bursts
    int lengthBits = 0;
    double errorRate = 0.5; // chance of each bit inside a burst to be flipped

    bool operator==(const BurstSettings& other) const;
};

struct LineSettings
{
    static constexpr int lowestRate = 10;
    static constexpr int highestRate = 10000000;

    int rateForward = 33600; // bit/s from the caller to the called modem, ten bits to a byte
    int rateBackward = 33600; // bit/s the other way
    int delayMs = 0; // each way
    double bitErrorRate = 0; // chance of each data bit to be flipped
    BurstSettings burst;
    double dropAfterSeconds = 0; // of a connection: carrier is lost then; 0: never
    qint64 dropAfterBytes = 0; // delivered, both ways together: likewise; 0: never
    int dropTimes = 0; // how many calls are dropped so, the first ones; 0: all
    quint64 seed = 1; // of the noise

    bool operator==(const LineSettings& other) const;

    // Changes what text names, as "rate=33600,delay=120,ber=1e-5": see docs for all keys.
    // On failure nothing is changed, and *error says what is wrong and what to write.
    bool change(const QString& text, QString* error);
    // In the form that change() takes.
    QString toString() const;
};

} // namespace sim
