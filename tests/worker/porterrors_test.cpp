// Which errors of a port are passed on, and as what.
#include "com/port/porterrors.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

constexpr int freeState = 3;

class PortErrorsTest : public testing::Test
{
protected:
    bool note(QSerialPort::SerialPortError code, bool portIsInUse = true)
    {
        return errors.note(code, port, freeState, portIsInUse);
    }

    QSerialPort port;
    PortErrors errors;
};

} // namespace

TEST_F(PortErrorsTest, FourCodesAreIgnored)
{
    for (int code = 0; code <= 13; ++code) {
        const bool isIgnored = code == 0 || code == 1 || code == 9 || code == 12;
        EXPECT_EQ(PortErrors::isIgnored(static_cast<QSerialPort::SerialPortError>(code)), isIgnored) << code;
        EXPECT_EQ(note(static_cast<QSerialPort::SerialPortError>(code)), !isIgnored) << code;
    }
}

TEST_F(PortErrorsTest, ErrorIsTakenOnceAsItWasRaised)
{
    port.setPortName(QStringLiteral("/nothing"));
    EXPECT_FALSE(port.open(QIODevice::ReadWrite));
    const QString text = port.errorString();
    EXPECT_FALSE(errors.take(QSerialPort::ReadError));
    EXPECT_TRUE(note(QSerialPort::ReadError));
    port.clearError();
    port.setBaudRate(-1); // the port now tells another text
    ASSERT_NE(port.errorString(), text);
    EXPECT_FALSE(errors.take(QSerialPort::WriteError));
    const std::optional<PortError> taken = errors.take(QSerialPort::ReadError);
    ASSERT_TRUE(taken);
    EXPECT_EQ(taken->code, QSerialPort::ReadError);
    EXPECT_EQ(taken->text.toStdString(), text.toStdString());
    EXPECT_EQ(taken->state, freeState);
    EXPECT_TRUE(errors.isOfThisOpening(*taken));
    EXPECT_FALSE(errors.take(QSerialPort::ReadError));
}

TEST_F(PortErrorsTest, OfEachCodeOnePassesUntilThePortIsClosed)
{
    int passed = 0;
    for (int i = 0; i < 100000; ++i)
        passed += note(QSerialPort::ReadError) + note(QSerialPort::WriteError);
    EXPECT_EQ(passed, 2);
    // Taking it does not let the next one through: its reset is still to come.
    EXPECT_TRUE(errors.take(QSerialPort::ReadError));
    EXPECT_FALSE(note(QSerialPort::ReadError));
    errors.portClosed();
    EXPECT_TRUE(note(QSerialPort::ReadError));
    EXPECT_TRUE(note(QSerialPort::WriteError));
}

TEST_F(PortErrorsTest, OpeningHoldsNothingBack)
{
    EXPECT_TRUE(note(QSerialPort::UnsupportedOperationError, false));
    EXPECT_TRUE(note(QSerialPort::UnsupportedOperationError, false));
    EXPECT_TRUE(note(QSerialPort::UnsupportedOperationError, true));
    EXPECT_FALSE(note(QSerialPort::UnsupportedOperationError, false));
}

TEST_F(PortErrorsTest, ErrorOfAnEarlierOpening)
{
    EXPECT_TRUE(note(QSerialPort::ReadError));
    errors.portClosed();
    const std::optional<PortError> taken = errors.take(QSerialPort::ReadError);
    ASSERT_TRUE(taken);
    EXPECT_FALSE(errors.isOfThisOpening(*taken));
}

// Noted by the worker's thread while the server's takes: each comes out once, in order.
TEST_F(PortErrorsTest, NotedAndTakenFromTwoThreads)
{
    constexpr int noted = 20000;
    std::atomic<bool> isOver{false};
    std::thread worker([&] {
        for (int i = 0; i < noted; ++i) {
            errors.note(QSerialPort::ReadError, port, i, false);
            if (i % 100 == 0)
                errors.portClosed();
        }
        isOver = true;
    });
    int next = 0;
    bool wasOver = false;
    for (;;) {
        wasOver = isOver;
        if (const std::optional<PortError> taken = errors.take(QSerialPort::ReadError)) {
            EXPECT_EQ(taken->state, next);
            EXPECT_EQ(taken->opening, (next + 99) / 100);
            ++next;
        } else if (wasOver) {
            break;
        } else {
            std::this_thread::yield();
        }
    }
    worker.join();
    EXPECT_EQ(next, noted);
}
