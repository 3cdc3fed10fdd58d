// Each call of a save in turn, failing or killing the process.
#include "tests/common/safesavingfixture.h"

#include <QFile>
#include <gtest/gtest.h>

#include <cerrno>
#include <functional>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

using namespace logtest;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

namespace {

const QByteArray older("older, of another size");
const QByteArray oldContent = patternOf('a', 3000);
const QByteArray newContent = patternOf('k', 50000);
const QByteArray thirdContent = patternOf('r', 700);

// What a child process tells.
struct Report
{
    int calls;
    bool reached;
};

enum class Outcome
{
    Saved,
    Refused,
    Killed,
    Broken
};

constexpr int killedCode = 99;

enum class Fault
{
    FailsOnce,
    FailsForGood,
    Kills,
    TearsAndKills,
    FillsTheDisk
};

struct FaultRow
{
    const char* name;
    Fault fault;
    int error;
};

void PrintTo(const FaultRow& row, std::ostream* out)
{
    *out << row.name;
}

const FaultRow faultRows[] = {
    {"EioOnce", Fault::FailsOnce, EIO},
    {"EioForGood", Fault::FailsForGood, EIO},
    {"EnospcOnce", Fault::FailsOnce, ENOSPC},
    {"EnospcForGood", Fault::FailsForGood, ENOSPC},
    {"EaccesOnce", Fault::FailsOnce, EACCES},
    {"EaccesForGood", Fault::FailsForGood, EACCES},
    {"Killed", Fault::Kills, 0},
    {"KilledAmidAWrite", Fault::TearsAndKills, 0},
    {"DiskFillsUp", Fault::FillsTheDisk, ENOSPC},
};

class SafeSavingUnderFaults : public SafeSaving, public testing::WithParamInterface<FaultRow>
{
protected:
    SafeSavingUnderFaults()
        : report(static_cast<Report*>(
              mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0)))
    {
        // Thousands of messages about the faults would hide the one that matters.
        qInstallMessageHandler([](QtMsgType, const QMessageLogContext&, const QString&) {});
    }
    ~SafeSavingUnderFaults() override { munmap(report, sizeof(Report)); }

    // Everything is done in child processes, each of which begins like a program at its start.
    static int exitCodeOf(const std::function<int()>& work)
    {
        const pid_t child = fork();
        if (child == 0)
            _exit(work());
        int status = 0;
        if (child < 0 || waitpid(child, &status, 0) != child || !WIFEXITED(status))
            return -1;
        return WEXITSTATUS(status);
    }

    // A save with the fault at the call of this index. Negative: none.
    Outcome saveWithFault(const std::string& prefix, int faultIndex)
    {
        *report = Report{0, false};
        const int code = exitCodeOf([&] {
            const SystemCallWatch watch(prefix, [&](SystemCall& call) { return judge(call, faultIndex); });
            const bool isSaved = save(newContent).isEmpty();
            report->calls = watch.count();
            return isSaved ? 0 : 1;
        });
        switch (code) {
        case 0: return Outcome::Saved;
        case 1: return Outcome::Refused;
        case killedCode: return Outcome::Killed;
        }
        return Outcome::Broken;
    }

    int judge(SystemCall& call, int faultIndex)
    {
        if (faultIndex < 0 || call.index < faultIndex)
            return 0;
        report->reached = true;
        // The lock beside settings.ini is Qt's own: torn or left, it is waited for half a minute.
        if (QByteArray::fromStdString(call.path).endsWith(".lock"))
            return 0;
        const bool isNow = call.index == faultIndex;
        switch (GetParam().fault) {
        case Fault::FailsOnce: return isNow ? GetParam().error : 0;
        case Fault::FailsForGood: return GetParam().error;
        case Fault::Kills: _exit(killedCode);
        case Fault::TearsAndKills:
            // The half of a write is on the disk when the process ends at its next call.
            if (isNow && call.name == "write") {
                call.bytes /= 2;
                return 0;
            }
            _exit(killedCode);
        case Fault::FillsTheDisk:
            if (call.name != "write")
                return 0;
            call.bytes /= 2;
            return isNow && call.bytes > 0 ? 0 : GetParam().error;
        }
        return 0;
    }

    void tryEveryCall(const std::string& prefix, const std::function<void()>& prepare, bool oldStood);
    void expectNothingLost(Outcome outcome, bool oldStood);

    Report* const report; // shared with the child
};

void SafeSavingUnderFaults::tryEveryCall(const std::string& prefix, const std::function<void()>& prepare, bool oldStood)
{
    prepare();
    ASSERT_EQ(saveWithFault(prefix, -1), Outcome::Saved);
    const int calls = report->calls;
    ASSERT_GT(calls, 8);
    for (int index = 0; index < calls; ++index) {
        for (bool isRecovered : {false, true}) {
            SCOPED_TRACE(testing::Message()
                         << "call " << index << " of " << calls << (isRecovered ? ", recovered" : ""));
            prepare();
            const Outcome outcome = saveWithFault(prefix, index);
            ASSERT_TRUE(report->reached);
            expectNothingLost(outcome, oldStood);
            if (isRecovered) {
                EXPECT_EQ(exitCodeOf([this] { return Global::recoverSaving(target).isEmpty() ? 0 : 1; }), 0);
                const QByteArray found = content(u("target"));
                EXPECT_TRUE(found == newContent || (oldStood ? found == oldContent : !QFile::exists(target)));
            }
            EXPECT_EQ(exitCodeOf([this] { return save(thirdContent).isEmpty() ? 0 : 1; }), 0);
            EXPECT_TRUE(content(u("target")) == thirdContent);
            EXPECT_FALSE(QFile::exists(side));
            if (HasFailure())
                return;
        }
    }
}

void SafeSavingUnderFaults::expectNothingLost(Outcome outcome, bool oldStood)
{
    const bool isThere = QFile::exists(target);
    const bool isNew = isThere && content(u("target")) == newContent;
    const bool isOld =
        oldStood ? (isThere ? content(u("target")) == oldContent : content(u("target.old")) == oldContent) : !isThere;
    switch (outcome) {
    case Outcome::Saved: EXPECT_TRUE(isNew) << "reported as saved, but it is not"; return;
    case Outcome::Refused: EXPECT_TRUE(isOld) << "refused, but what stood there is gone"; return;
    case Outcome::Killed: EXPECT_TRUE(isNew || isOld) << "neither old nor new is whole"; return;
    case Outcome::Broken: ADD_FAILURE() << "the process crashed"; return;
    }
}

} // namespace

TEST_P(SafeSavingUnderFaults, OfANewFile)
{
    tryEveryCall(
        directory.toStdString(), [this] { QDir(directory).removeRecursively(); }, false);
}

TEST_P(SafeSavingUnderFaults, OfAnExistingFile)
{
    tryEveryCall(
        directory.toStdString(),
        [this] {
            QDir(directory).removeRecursively();
            put(u("target"), oldContent);
        },
        true);
}

TEST_P(SafeSavingUnderFaults, WithABackupAndASideFileLeft)
{
    tryEveryCall(
        directory.toStdString(),
        [this] {
            QDir(directory).removeRecursively();
            put(u("target"), oldContent);
            put(u("target.old"), older);
            put(u("target.new"), older);
        },
        true);
}

TEST_P(SafeSavingUnderFaults, AfterACrashBetweenTheRenames)
{
    tryEveryCall(
        directory.toStdString(),
        [this] {
            QDir(directory).removeRecursively();
            put(u("target.old"), oldContent);
            put(u("target.new"), older);
        },
        true);
}

// Settings and log, which are begun by the save, are hit too.
TEST_P(SafeSavingUnderFaults, OfTheWholeInstallation)
{
    tryEveryCall(
        rig::installRoot().toStdString(),
        [this] {
            for (const char* tree : {"files", "data", "settings"})
                QDir(rootPath(u(tree))).removeRecursively();
            put(u("target"), oldContent);
        },
        true);
}

INSTANTIATE_TEST_SUITE_P(Each, SafeSavingUnderFaults, testing::ValuesIn(faultRows),
                         [](const auto& test) { return std::string(test.param.name); });
