// That stacks take turns as threads do, and that simulated disks keep and lose what real ones do.
#include "rig/time/fibers.h"
#include "rig/time/simdisk.h"
#include "rig/time/virtualtime.h"
#include "tests/soak/hubrun.h"

#include <QMutex>
#include <QMutexLocker>
#include <QThread>
#include <gtest/gtest.h>

#include <cerrno>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <set>
#include <signal.h>
#include <string>
#include <sys/stat.h>
#include <unistd.h>
#include <vector>

using namespace soak;
using namespace rig;
namespace fs = std::filesystem;

namespace {

class SimDiskTest : public testing::Test
{
protected:
    void SetUp() override
    {
        startVirtualTime(1700000000000);
        beginSimulatedDisks(1);
        std::string pattern = (fs::temp_directory_path() / "simdisk-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = fs::canonical(pattern);
    }

    void TearDown() override
    {
        Directly directly;
        fs::remove_all(directory);
    }

    static bool writeFile(const std::string& path, const std::string& text, bool sync)
    {
        const int file = open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
        if (file < 0)
            return false;
        bool good = write(file, text.data(), text.size()) == static_cast<ssize_t>(text.size());
        if (sync)
            good = fsync(file) == 0 && good;
        close(file);
        return good;
    }

    static void syncDirectory(const std::string& path)
    {
        const int handle = open(path.c_str(), O_RDONLY | O_DIRECTORY);
        ASSERT_EQ(fsync(handle), 0);
        close(handle);
    }

    static std::string read(const std::string& path)
    {
        std::ifstream file(path);
        return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
    }

    std::string directory;
};

} // namespace

TEST_F(SimDiskTest, aSyncedFileOutlivesAPowerFailureAndAnUnsyncedOneMayNot)
{
    std::set<std::string> left;
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        SimDisk disk(directory + "/disk", seed);
        ASSERT_TRUE(writeFile(disk.root() + "/kept", "kept", true));
        ASSERT_TRUE(writeFile(disk.root() + "/hoped", "hoped", false));
        disk.restart(true);
        EXPECT_EQ(read(disk.root() + "/kept"), "kept");
        const std::string hoped = disk.root() + "/hoped";
        left.insert(fs::exists(hoped) ? read(hoped) : "no file");
    }
    EXPECT_EQ(left.count("no file"), 1u);
    EXPECT_EQ(left.count(""), 1u);
    EXPECT_EQ(left.count("hop"), 1u);
    EXPECT_EQ(left.count(std::string("ho\0\0\0", 5)), 1u);
    EXPECT_EQ(left.count("hoped"), 1u);
}

TEST_F(SimDiskTest, whatIsAppendedToASyncedFileTakesNothingOfItAway)
{
    std::set<std::string> left;
    for (std::uint64_t seed = 0; seed < 200; ++seed) {
        SimDisk disk(directory + "/disk", seed);
        const std::string path = disk.root() + "/list";
        ASSERT_TRUE(writeFile(path, "one", true));
        const int file = open(path.c_str(), O_WRONLY | O_APPEND);
        ASSERT_EQ(write(file, "two", 3), 3);
        close(file);
        disk.restart(true);
        EXPECT_EQ(read(path).substr(0, 3), "one");
        left.insert(read(path));
    }
    EXPECT_EQ(left.count("one"), 1u);
    EXPECT_EQ(left.count("onetwo"), 1u);
    EXPECT_EQ(left.count("onetw"), 1u);
}

TEST_F(SimDiskTest, aRenameIsKeptOnceItsDirectoryIsSynced)
{
    int lost = 0;
    for (std::uint64_t seed = 0; seed < 100; ++seed) {
        SimDisk disk(directory + "/disk", seed);
        ASSERT_EQ(mkdir((disk.root() + "/a").c_str(), 0755), 0);
        ASSERT_TRUE(writeFile(disk.root() + "/a/file", "text", true));
        ASSERT_EQ(rename((disk.root() + "/a").c_str(), (disk.root() + "/b").c_str()), 0);
        const bool isSynced = seed % 2 == 0;
        if (isSynced)
            syncDirectory(disk.root());
        disk.restart(true);
        EXPECT_NE(fs::exists(disk.root() + "/a/file"), fs::exists(disk.root() + "/b/file"));
        lost += fs::exists(disk.root() + "/a/file");
        if (isSynced) {
            EXPECT_EQ(read(disk.root() + "/b/file"), "text");
        }
    }
    EXPECT_GT(lost, 0);
}

TEST_F(SimDiskTest, aKilledProcessLeavesWhatItDidAndChangesNothingMore)
{
    SimDisk disk(directory + "/disk", 1);
    ASSERT_TRUE(writeFile(disk.root() + "/before", "before", false));
    disk.dieAtCall(2);
    EXPECT_EQ(mkdir((disk.root() + "/made").c_str(), 0755), 0);
    EXPECT_EQ(unlink((disk.root() + "/before").c_str()), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_TRUE(disk.isDead());
    EXPECT_FALSE(writeFile(disk.root() + "/behind", "behind", true));
    EXPECT_EQ(rename((disk.root() + "/before").c_str(), (disk.root() + "/other").c_str()), -1);
    disk.restart(false);
    EXPECT_EQ(read(disk.root() + "/before"), "before");
    EXPECT_TRUE(fs::exists(disk.root() + "/made"));
    EXPECT_FALSE(fs::exists(disk.root() + "/behind"));
    EXPECT_TRUE(writeFile(disk.root() + "/behind", "behind", true));
}

TEST_F(SimDiskTest, aFullDiskTakesNothingNew)
{
    SimDisk disk(directory + "/disk", 1);
    ASSERT_TRUE(writeFile(disk.root() + "/file", "text", true));
    disk.setFull(true);
    EXPECT_EQ(mkdir((disk.root() + "/made").c_str(), 0755), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_FALSE(writeFile(disk.root() + "/other", "x", false));
    EXPECT_EQ(unlink((disk.root() + "/file").c_str()), 0);
}

TEST_F(SimDiskTest, otherStacksRunWhileACallTakesItsTime)
{
    SimDisk disk(directory + "/disk", 1);
    disk.setTimes(400 * nsPerMs, 0);
    std::vector<std::string> order;
    Fibers fibers;
    fibers.start([&] {
        writeFile(disk.root() + "/file", "text", true);
        order.push_back("synced");
        EXPECT_GE(nowNs(), 200 * nsPerMs);
    });
    fibers.start([&] {
        QThread::msleep(100);
        order.push_back("other");
    });
    EXPECT_FALSE(fibers.runUntil(nsPerS));
    EXPECT_EQ(order, (std::vector<std::string>{"other", "synced"}));
}

TEST(FibersTest, aLockThatIsHeldOverASleepKeepsTheOthersOut)
{
    startVirtualTime(1700000000000);
    QMutex mutex;
    int inside = 0;
    int turns = 0;
    Fibers fibers;
    for (int i = 0; i < 5; ++i) {
        fibers.start([&] {
            for (int turn = 0; turn < 10; ++turn) {
                QMutexLocker locker(&mutex);
                EXPECT_EQ(++inside, 1);
                QThread::msleep(10);
                --inside;
                ++turns;
            }
        });
    }
    fibers.runUntil(250 * nsPerMs);
    EXPECT_LT(turns, 50);
    EXPECT_FALSE(fibers.runUntil(10 * nsPerS));
    EXPECT_EQ(turns, 50);
}

TEST(FibersTest, eachHasTheNumberOfItsProcess)
{
    startVirtualTime(1700000000000);
    beginSimulatedDisks(1);
    const int process = firstProcess + 7;
    setProcessAlive(process, true);
    int seen = 0;
    Fibers fibers;
    fibers.start([&] { seen = getpid(); }, &process);
    fibers.runUntil(nsPerS);
    EXPECT_EQ(seen, process);
    EXPECT_NE(getpid(), process);
    EXPECT_EQ(kill(process, 0), 0);
    setProcessAlive(process, false);
    EXPECT_EQ(kill(process, 0), -1);
}
