// Writing to a device in bounded time.
#include "common/global.h"
#include "tests/common/logsupport.h"
#include "tests/common/printing.h"

#include <QElapsedTimer>
#include <QFile>
#include <QIODevice>
#include <QThread>
#include <gtest/gtest.h>

#include <functional>

using logtest::rootPath;

namespace {

// Takes of each write what a script says; -1: an error, and the last entry for good.
class ScriptedDevice : public QIODevice
{
public:
    explicit ScriptedDevice(QList<qint64> script) : m_script(std::move(script)) { open(WriteOnly | Unbuffered); }

    bool isSequential() const override { return true; }
    bool waitForBytesWritten(int msecs) override
    {
        waits.append(msecs);
        return false;
    }

    QByteArray taken;
    QList<int> waits;
    int writes = 0;
    std::function<void(int write)> onWrite;

protected:
    qint64 readData(char*, qint64) override { return -1; }
    qint64 writeData(const char* data, qint64 size) override
    {
        const int number = writes++;
        if (onWrite)
            onWrite(number);
        const qint64 accepted = qMin(m_script.at(qMin(number, m_script.size() - 1)), size);
        if (accepted > 0)
            taken.append(data, int(accepted));
        return accepted;
    }

private:
    const QList<qint64> m_script;
};

constexpr qint64 everything = 1 << 30;

void waitOut(const QElapsedTimer& timer, qint64 ms)
{
    while (timer.elapsed() <= ms)
        QThread::yieldCurrentThread();
}

} // namespace

TEST(WriteData, EmptyDataTouchesNothing)
{
    QFile closed(rootPath(QStringLiteral("never")));
    EXPECT_TRUE(Global::writeData(closed, QByteArray(), 1));
    ScriptedDevice device({-1});
    EXPECT_TRUE(Global::writeData(device, QByteArray(), 0));
    EXPECT_EQ(device.writes, 0);
    EXPECT_FALSE(QFile::exists(logtest::settingsPath()));
}

TEST(WriteData, AllAtOnce)
{
    ScriptedDevice device({everything});
    EXPECT_TRUE(Global::writeData(device, "abcdef", 1));
    EXPECT_EQ(device.taken, "abcdef");
    EXPECT_EQ(device.writes, 1);
    EXPECT_EQ(device.waits, QList<int>());
}

TEST(WriteData, PieceByPiece)
{
    ScriptedDevice device({2, 0, 1, 0, everything});
    EXPECT_TRUE(Global::writeData(device, "abcdef", 60000));
    EXPECT_EQ(device.taken, "abcdef");
    EXPECT_EQ(device.waits, (QList<int>{1, 1, 1, 1}));
}

TEST(WriteData, Errors)
{
    ScriptedDevice atOnce({-1});
    EXPECT_FALSE(Global::writeData(atOnce, "abcdef", -1));
    EXPECT_EQ(atOnce.writes, 1);
    ScriptedDevice later({2, 0, -1});
    EXPECT_FALSE(Global::writeData(later, "abcdef", -1));
    EXPECT_EQ(later.writes, 3);
    QFile closed(rootPath(QStringLiteral("never")));
    EXPECT_FALSE(Global::writeData(closed, "abcdef", -1));
}

TEST(WriteData, DeviceThatCloses)
{
    ScriptedDevice device({2, 0, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            device.close();
    };
    EXPECT_FALSE(Global::writeData(device, "abcdef", -1));
    EXPECT_EQ(device.writes, 2);
}

TEST(WriteData, DeviceThatClosesWithTheLastByte)
{
    ScriptedDevice device({2, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            device.close();
    };
    EXPECT_FALSE(Global::writeData(device, "abcdef", -1));
    EXPECT_EQ(device.taken, "abcdef");
}

TEST(WriteData, TimeIsUp)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({0});
    EXPECT_FALSE(Global::writeData(device, "abcdef", 50));
    EXPECT_GE(timer.elapsed(), 50);
    EXPECT_GT(device.writes, 1);
}

// What comes too late has failed, even when it is whole.
TEST(WriteData, TimeIsLookedAtBeforeCompleteness)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({2, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            waitOut(timer, 60); // the time given counts from the first write, which was earlier
    };
    EXPECT_FALSE(Global::writeData(device, "abcdef", 20));
    EXPECT_EQ(device.taken, "abcdef");
}

TEST(WriteData, FirstWriteTakesItsTime)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({everything});
    device.onWrite = [&](int) { waitOut(timer, 30); };
    EXPECT_TRUE(Global::writeData(device, "abcdef", 5));
}

TEST(WriteData, NoLimit)
{
    logtest::editSettings("[Details]\nmaxWritingTime=100\n");
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({0, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            waitOut(timer, 150);
    };
    EXPECT_TRUE(Global::writeData(device, "abcdef", -1));
}

TEST(WriteData, TimeOfTheSettings)
{
    logtest::editSettings("[Details]\nmaxWritingTime=100\n");
    for (int round = 0; round < 2; ++round) {
        QElapsedTimer timer;
        timer.start();
        ScriptedDevice device({0});
        EXPECT_FALSE(Global::writeData(device, "abcdef", 0));
        EXPECT_GE(timer.elapsed(), 100);
        EXPECT_LT(timer.elapsed(), 9000);
        // Read once: a change counts from the next start.
        logtest::editSettings("[Details]\nmaxWritingTime=10000\n");
    }
}

TEST(WriteData, TimeByDefault)
{
    QElapsedTimer timer;
    timer.start();
    ScriptedDevice device({2, 0, everything});
    device.onWrite = [&](int write) {
        if (write == 1)
            waitOut(timer, 200);
    };
    EXPECT_TRUE(Global::writeData(device, "abcdef", 0));
    EXPECT_EQ(logtest::settingsOnDisk().value(QStringLiteral("Details/maxWritingTime")), QStringLiteral("5000"));
}

TEST(WriteData, GivenTimeNeedsNoSettings)
{
    ScriptedDevice device({0});
    EXPECT_FALSE(Global::writeData(device, "abcdef", 5));
    EXPECT_FALSE(QFile::exists(logtest::settingsPath()));
}
