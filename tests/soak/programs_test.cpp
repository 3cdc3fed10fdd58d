// What the programs of runs are made of: their command line, their installation, their end.
#include "rig/runs/commandline.h"
#include "rig/runs/runinstallation.h"
#include "rig/runs/stoprequest.h"
#include "rig/testroot.h"

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <poll.h>
#include <sstream>
#include <stdexcept>
#include <sys/wait.h>
#include <unistd.h>

using namespace rig;

namespace fs = std::filesystem;

namespace {

template <typename Action>
std::string complaintOf(Action action)
{
    try {
        action();
    } catch (const std::runtime_error& error) {
        return error.what();
    }
    return "none";
}

std::string outputOf(const StartedRun& run, int* status)
{
    std::string output;
    char buffer[4096];
    for (ssize_t size; (size = read(run.output, buffer, sizeof(buffer))) > 0;)
        output.append(buffer, static_cast<std::size_t>(size));
    close(run.output);
    waitpid(run.process, status, 0);
    return output;
}

class RunInstallationTest : public testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_NE(mkdtemp(m_directory.data()), nullptr);
        setenv("TMPDIR", m_directory.c_str(), 1);
    }
    void TearDown() override { fs::remove_all(m_directory); }

    // The one entry of the directory for temporary files.
    fs::path root() const { return fs::directory_iterator(m_directory)->path(); }
    const std::string& directory() const { return m_directory; }

private:
    std::string m_directory = rig::installRoot().toStdString() + "/tmp-XXXXXX";
};

} // namespace

TEST(CommandLineTest, givesOptionsAndTheirValues)
{
    char words[4][10] = {"program", "--one", "--two", "value"};
    char* argv[] = {words[0], words[1], words[2], words[3], nullptr};
    CommandLine line(4, argv, "usage");
    ASSERT_TRUE(line.next());
    EXPECT_EQ(line.option(), "--one");
    ASSERT_TRUE(line.next());
    EXPECT_EQ(line.option(), "--two");
    EXPECT_EQ(line.value(), "value");
    EXPECT_FALSE(line.next());
}

TEST(CommandLineTest, saysWhatIsWrong)
{
    char words[2][10] = {"program", "--one"};
    char* argv[] = {words[0], words[1], nullptr};
    CommandLine line(2, argv, "usage");
    ASSERT_TRUE(line.next());
    EXPECT_EQ(complaintOf([&] { line.unknownOption(); }), "unknown option: --one");
    EXPECT_EQ(complaintOf([&] { line.value(); }), "--one needs a value");
}

TEST(CommandLineTest, takesNumbersOnly)
{
    EXPECT_EQ(number("1e-5"), 1e-5);
    EXPECT_EQ(wholeNumber("18446744073709551615"), UINT64_MAX);
    EXPECT_EQ(wholeNumber("7", 1, 7), 7);
    for (const char* text : {"", "x", "1x", "-1", "nan"}) {
        EXPECT_EQ(complaintOf([&] { number(text); }), std::string("not a number: ") + text);
        EXPECT_EQ(complaintOf([&] { wholeNumber(text); }), std::string("not a number: ") + text);
    }
    EXPECT_EQ(complaintOf([] { wholeNumber("18446744073709551616"); }), "not a number: 18446744073709551616");
    for (const char* text : {"0", "8", "1.5", "inf", "1e300"})
        EXPECT_EQ(complaintOf([&] { wholeNumber(text, 1, 7); }),
                  std::string("not a whole number from 1 to 7: ") + text);
}

TEST(CommandLineTest, partsStandBetweenCommas)
{
    EXPECT_EQ(parts("a,b,,c"), (std::vector<std::string>{"a", "b", "", "c"}));
    EXPECT_EQ(parts(""), std::vector<std::string>());
}

TEST(CommandLineTest, whatIsThrownIsExitStatus2)
{
    const auto complaining = [](int, char**) -> int { fail("this"); };
    const auto counting = [](int argc, char**) { return argc; };
    EXPECT_EQ(exitStatusOf("program", complaining, 1, nullptr), 2);
    EXPECT_EQ(exitStatusOf("program", counting, 7, nullptr), 7);
}

TEST_F(RunInstallationTest, holdsTheSettingsOfTheRunOnly)
{
    RunInstallation installation;
    installation.prepare({64, 101, 1002, 1003, 104});
    fs::create_directory(root() / "data");
    std::ofstream(root() / "settings" / "other") << "left over";
    installation.prepare({64, 201, 2002, 2003, 204});
    EXPECT_FALSE(fs::exists(root() / "data"));
    EXPECT_FALSE(fs::exists(root() / "settings" / "other"));
    std::stringstream text;
    text << std::ifstream(root() / "settings" / "settings.ini").rdbuf();
    EXPECT_EQ(text.str(), "[Details]\n"
                          "transportComMaxBytesToWrite=201\n"
                          "transportComMaxBytesInQueue=2002\n"
                          "transportComResendInterval=2003\n"
                          "transportComConfirmationInterval=204\n");
}

TEST_F(RunInstallationTest, runsThisProgramInItAndGoesWithoutTrace)
{
    {
        RunInstallation installation;
        const fs::path program = fs::canonical("/proc/self/exe").filename();
        EXPECT_TRUE(fs::exists(root() / "bin" / program));
        int status = -1;
        const std::string output = outputOf(installation.start({"--gtest_list_tests"}), &status);
        EXPECT_EQ(status, 0);
        EXPECT_NE(output.find("RunInstallationTest."), std::string::npos) << output;
    }
    EXPECT_TRUE(fs::is_empty(directory()));
}

TEST_F(RunInstallationTest, tellsHowARunHasEnded)
{
    RunInstallation installation;
    int status = -1;
    outputOf(installation.start({"--gtest_list_tests"}), &status);
    EXPECT_EQ(describeEnd(status), "ended with status 0");
    const pid_t child = fork();
    if (child == 0)
        std::raise(SIGKILL);
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_EQ(describeEnd(status), "ended by signal Killed");
    fs::remove(root() / "bin" / fs::canonical("/proc/self/exe").filename());
    outputOf(installation.start({}), &status);
    EXPECT_EQ(describeEnd(status), "ended with status 127");
}

TEST_F(RunInstallationTest, saysThatItCannotBeMade)
{
    setenv("TMPDIR", "/proc", 1);
    EXPECT_EQ(complaintOf([] { RunInstallation installation; }).find("no directory for the runs: "), 0u);
}

TEST(StopRequestTest, isSeenWhileWaiting)
{
    StopRequest stop;
    EXPECT_EQ(stop.poll(nullptr, 0, 1), 0);
    EXPECT_FALSE(stop.isAsked());
    std::raise(SIGTERM);
    EXPECT_FALSE(stop.isAsked());
    EXPECT_EQ(stop.poll(nullptr, 0, -1), -1);
    EXPECT_TRUE(stop.isAsked());
    EXPECT_EQ(stop.poll(nullptr, 0, -1), -1);
}

TEST(StopRequestTest, leavesIgnoredSignalsIgnored)
{
    std::signal(SIGHUP, SIG_IGN);
    StopRequest stop;
    std::raise(SIGHUP);
    EXPECT_EQ(stop.poll(nullptr, 0, 1), 0);
    EXPECT_FALSE(stop.isAsked());
}

TEST(StopRequestTest, endsTheProcessByTheSignalThatAsked)
{
    const pid_t child = fork();
    if (child == 0) {
        StopRequest stop;
        stop.obey();
        std::raise(SIGTERM);
        (void)stop.poll(nullptr, 0, -1);
        stop.obey();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    EXPECT_EQ(WTERMSIG(status), SIGTERM);
}
