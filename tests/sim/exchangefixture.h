// An exchange with modems, and programs on real serial ports that use them.
#pragma once

#include "rig/deadline.h"
#include "rig/testroot.h"
#include "sim/exchange/exchange.h"
#include "sim/pty/signaltable.h"

#include <QFileInfo>
#include <QSerialPort>
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <sys/ioctl.h>

namespace simtest {

using namespace sim;
using rig::waitFor;

// A program at a modem: a real serial port and what came from it.
class Program
{
public:
    explicit Program(const QString& path)
    {
        port.setPortName(path);
        port.open(QIODevice::ReadWrite);
        port.setDataTerminalReady(true);
    }

    void send(const QByteArray& bytes) { port.write(bytes); }

    // Waits until text has come, and forgets all up to its end.
    bool expect(const QByteArray& text)
    {
        const bool found = waitFor([&] {
            received += port.readAll();
            return received.contains(text);
        });
        if (found)
            received.remove(0, received.indexOf(text) + text.size());
        return found;
    }

    bool hasLine(QSerialPort::PinoutSignal pin) { return port.pinoutSignals() & pin; }

    QSerialPort port;
    QByteArray received;
};

class ExchangeTest : public testing::Test
{
protected:
    // Quick where the exchange's own pauses are not the matter of a test.
    CallSettings quick(const char* line = "rate=115200") const
    {
        CallSettings settings;
        QString error;
        EXPECT_TRUE(settings.line.change(QString::fromLatin1(line), &error)) << error.toStdString();
        settings.ringIntervalMs = 100;
        settings.ringLengthMs = 50;
        return settings;
    }

    void make(const CallSettings& settings, int modems = 2, RingStyle ringStyle = RingStyle::Text)
    {
        exchange = std::make_unique<Exchange>(settings);
        for (int i = 1; i <= modems; ++i)
            ASSERT_EQ(add(QString::number(100 + i), ringStyle), i);
        exchange->start();
    }

    int add(const QString& number, RingStyle ringStyle = RingStyle::Text)
    {
        ModemSettings settings;
        settings.number = number;
        settings.ringStyle = ringStyle;
        settings.linkPath = QStringLiteral("%1/modem%2").arg(rig::installRoot(), number);
        QString error;
        const int modem = exchange->addModem(settings, &error);
        EXPECT_GT(modem, 0) << error.toStdString();
        return modem;
    }

    // The program at a modem; opened when first asked for.
    Program& at(int modem)
    {
        auto& program = m_programs[modem];
        if (!program)
            program = std::make_unique<Program>(exchange->portPath(modem));
        return *program;
    }

    void replug(int modem) { m_programs.erase(modem); }

    void connectCall(int caller = 1, int called = 2)
    {
        at(called);
        at(caller).send("ATE0DT" + QByteArray::number(100 + called) + "\r");
        ASSERT_TRUE(at(called).expect("\r\nRING\r\n"));
        at(called).send("ATA\r");
        ASSERT_TRUE(at(called).expect("CONNECT "));
        ASSERT_TRUE(at(called).expect("\r\n"));
        ASSERT_TRUE(at(caller).expect("CONNECT "));
        ASSERT_TRUE(at(caller).expect("\r\n"));
    }

    bool waitForEnds(int count)
    {
        return waitFor([&] { return exchange->endedCalls().size() >= count; });
    }

    CallStatistics lastCall() const { return exchange->endedCalls().last(); }

    // At which bytes leave a modem's driver, as programs are told: in bytes/s, 0 where that is not known.
    int pace(int modem) const
    {
        const QString slave = QFileInfo(exchange->portPath(modem)).canonicalFilePath();
        const SignalRow* row = signalRow(findSignalTable(), QFileInfo(slave).fileName().toInt());
        return row ? row->drainBytesPerS.load() : -1;
    }

    bool waitForPaces(int ofFirst, int ofSecond)
    {
        return waitFor([&] { return pace(1) == ofFirst && pace(2) == ofSecond; });
    }

    std::unique_ptr<Exchange> exchange;

private:
    std::map<int, std::unique_ptr<Program>> m_programs;
};

// Whether the modem has taken all that the program wrote.
inline bool drained(Program& program)
{
    int bytes = -1;
    return program.port.bytesToWrite() == 0 && ioctl(program.port.handle(), TIOCOUTQ, &bytes) == 0 && bytes == 0;
}

inline QByteArray pattern(int size)
{
    QByteArray bytes;
    for (int i = 0; i < size; ++i)
        bytes += static_cast<char>(i * 7 + i / 251);
    return bytes;
}

} // namespace simtest
