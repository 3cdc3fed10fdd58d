// main() of every test program: moves the program into a fresh installation root before
// Qt starts, since many values of the code under test are read once per process.
#include "tests/support/testroot.h"

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <string>

#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <QCoreApplication>

#include <gtest/gtest.h>

namespace fs = std::filesystem;

namespace {

constexpr char rootVariable[] = "TEST_INSTALL_ROOT";
constexpr char seedVariable[] = "TEST_SEED";

bool onlyLists(int argc, char** argv)
{
    for (int i = 1; i < argc; ++i) {
        if (std::string(argv[i]) == "--gtest_list_tests")
            return true;
    }
    return false;
}

fs::path makeRoot(const fs::path& program)
{
    std::string pattern = (program.parent_path() / "root-XXXXXX").string();
    if (!mkdtemp(pattern.data())) {
        std::perror("test root");
        std::exit(1);
    }
    const fs::path root(pattern);
    // A test may want to see how others' rights matter; mkdtemp makes it 0700.
    chmod(root.c_str(), 0755);
    fs::create_directory(root / "bin");
    std::error_code error;
    fs::create_hard_link(program, root / "bin" / program.filename(), error);
    if (error)
        fs::copy_file(program, root / "bin" / program.filename());
    return root;
}

// Makes everything below root removable again, whatever a test did to it.
void removeRoot(const fs::path& root)
{
    std::error_code ignored;
    for (auto it = fs::recursive_directory_iterator(root, ignored); it != fs::recursive_directory_iterator(); it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::remove_all(root, ignored);
}

int runInFreshRoot(char** argv)
{
    const fs::path program = fs::canonical("/proc/self/exe");
    const fs::path root = makeRoot(program);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        setenv(rootVariable, root.c_str(), 1);
        if (!std::getenv(seedVariable))
            setenv(seedVariable, std::to_string(std::random_device()()).c_str(), 1);
        execv((root / "bin" / program.filename()).c_str(), argv);
        std::perror("exec of the test program");
        _exit(127);
    }
    int status = 1;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    removeRoot(root);
    if (WIFSIGNALED(status)) {
        std::fprintf(stderr, "test process ended by signal %d\n", WTERMSIG(status));
        return 128 + WTERMSIG(status);
    }
    return WEXITSTATUS(status);
}

class SeedPrinter : public testing::EmptyTestEventListener
{
    void OnTestEnd(const testing::TestInfo& info) override
    {
        if (info.result()->Failed())
            std::printf("repeat with %s=%u\n", seedVariable, testsupport::seed());
    }
};

} // namespace

QString testsupport::installRoot()
{
    return QString::fromLocal8Bit(std::getenv(rootVariable));
}

unsigned testsupport::seed()
{
    return static_cast<unsigned>(std::strtoul(std::getenv(seedVariable), nullptr, 10));
}

int main(int argc, char** argv)
{
    const bool listing = onlyLists(argc, argv);
    if (!listing && !std::getenv(rootVariable))
        return runInFreshRoot(argv);
    testing::InitGoogleTest(&argc, argv);
    if (listing)
        return RUN_ALL_TESTS();
    testing::UnitTest::GetInstance()->listeners().Append(new SeedPrinter);
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("test"));
    return RUN_ALL_TESTS();
}
