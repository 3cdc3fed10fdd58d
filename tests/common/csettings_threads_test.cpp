// Several threads use the settings store at once.
#include "tests/common/settingskeytables.h"
#include "tests/support/blockedthread.h"
#include "tests/support/systemcalls.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using namespace logtest;

TEST(SettingsThreads, AllShareOneStoreFromTheFirstUseOn)
{
    constexpr int threadCount = 8;
    constexpr int rounds = 40;
    std::atomic<int> ready{0};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&, number] {
            ++ready;
            while (ready < threadCount)
                std::this_thread::yield();
            for (int round = 0; round < rounds; ++round) {
                const BoolKey& boolKey = boolKeys[(number + round) % 21];
                const IntKey& intKey = intKeys[(number * 3 + round) % 14];
                if (boolOf(boolKey) != boolKey.defaultValue || intOf(intKey) != intKey.defaultValue)
                    ++wrong;
                CSettings settings;
                if (settings.detailsTransportComControlSymbol() != QStringLiteral("\r"))
                    ++wrong;
                if (round % 8 == 0)
                    settings.write(QStringLiteral("Own/thread%1").arg(number), round);
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    consultEverything();
    const QMap<QString, QString> onDisk = settingsOnDisk();
    for (int number = 0; number < threadCount; ++number)
        EXPECT_EQ(onDisk.value(QStringLiteral("Own/thread%1").arg(number)), QStringLiteral("32"));
    EXPECT_EQ(onDisk.size(), expectedKeys().size() + threadCount);
}

TEST(SettingsThreads, OneOperationWaitsForAnother)
{
    std::unique_ptr<testsupport::ObservedThread> other;
    {
        const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(), [&](testsupport::SystemCall& call) {
            // In the middle of this thread's operation, where Qt holds no lock of its own.
            if ((call.name == "chmod" || call.name == "fchmod") &&
                call.path == rootPath(QStringLiteral("settings")).toStdString() && !other) {
                other = std::make_unique<testsupport::ObservedThread>([] { CSettings().debugIpcData(); });
                EXPECT_TRUE(other->sleepsBeforeItsEnd());
            }
            return 0;
        });
        EXPECT_FALSE(CSettings().debugAll());
    }
    ASSERT_TRUE(other);
    other->join();
    EXPECT_EQ(settingsOnDisk().size(), 2);
}

TEST(SettingsThreads, ReadWhileAnotherProcessEditsAndDeletes)
{
    constexpr int threadCount = 4;
    std::atomic<bool> stops{false};
    std::atomic<int> wrong{0};
    std::vector<std::thread> threads;
    editSettings("[Details]\nmaxWritingTime=200\n");
    for (int number = 0; number < threadCount; ++number) {
        threads.emplace_back([&] {
            while (!stops) {
                const int value = CSettings().detailsMaxWritingTime();
                if (value != 5000 && (value < 200 || value > 260))
                    ++wrong;
            }
        });
    }
    for (int edit = 0; edit < 60; ++edit) {
        if (edit % 5 == 4)
            QFile::remove(settingsPath());
        else
            editSettings("[Details]\nmaxWritingTime=" + QByteArray::number(200 + edit) + "\n");
        std::this_thread::yield();
    }
    stops = true;
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(wrong, 0);
    editSettings("[Details]\nmaxWritingTime=777\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 777);
}
