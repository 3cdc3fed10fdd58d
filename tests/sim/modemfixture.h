// A modem fed byte by byte in a time of the test's own, and a record of what it did.
#pragma once

#include "sim/line/moments.h"
#include "sim/modem/modem.h"

#include <QByteArray>
#include <QStringList>
#include <gtest/gtest.h>

#include <utility>

namespace simtest {

using namespace sim;

// What a modem did, in order: "dial 123 +0", "answer", "hangUp", "RI 1".
class RecordingHost : public ModemHost
{
public:
    void toProgram(const QByteArray& bytes) override { program += bytes; }
    void toLine(char byte) override { line += byte; }
    void dial(const QString& number, qint64 pauseNs) override
    {
        calls += QStringLiteral("dial %1 +%2").arg(number).arg(pauseNs / nsPerMs);
    }
    void answer() override { calls += QStringLiteral("answer"); }
    void hangUp() override { calls += QStringLiteral("hangUp"); }
    void setCarrierDetect(bool raised) override { carrier = raised; }
    void setRingIndicator(bool raised) override { calls += QStringLiteral("RI %1").arg(raised); }
    void trace(const QString&) override {}

    QByteArray takeProgram() { return std::exchange(program, {}); }
    QStringList takeCalls() { return std::exchange(calls, {}); }

    QByteArray program;
    QByteArray line;
    QStringList calls;
    bool carrier = false;
};

class ModemTest : public testing::Test
{
protected:
    void type(const QByteArray& bytes)
    {
        for (const char byte : bytes)
            modem.byteFromProgram(byte, now);
    }

    // What the modem answers to a command, without its echo.
    QByteArray ask(const QByteArray& command)
    {
        host.takeProgram();
        type(command + '\r');
        QByteArray answer = host.takeProgram();
        if (answer.startsWith(command + '\r'))
            answer.remove(0, command.size() + 1);
        return answer;
    }

    void passMs(qint64 ms)
    {
        now += ms * nsPerMs;
        modem.advance(now);
    }

    void connectCall(int speed = 33600)
    {
        type("ATD102\r");
        modem.connected(speed, now);
        host.takeProgram();
        host.takeCalls();
    }

    static QByteArray framed(const QByteArray& text) { return "\r\n" + text + "\r\n"; }

    RecordingHost host;
    Modem modem{&host, QStringLiteral("101")};
    qint64 now = nsPerSecond;
};

inline const QByteArray ok("\r\nOK\r\n");
inline const QByteArray error("\r\nERROR\r\n");
inline const QByteArray noCarrier("\r\nNO CARRIER\r\n");

} // namespace simtest
