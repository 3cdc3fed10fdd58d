#include "rig/freshroot.h"

#include "rig/testroot.h"

#include <cerrno>
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

namespace fs = std::filesystem;

namespace {

constexpr char rootVariable[] = "TEST_INSTALL_ROOT";
constexpr char seedVariable[] = "TEST_SEED";

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
    for (auto it = fs::recursive_directory_iterator(root, ignored); it != fs::recursive_directory_iterator();
         it.increment(ignored)) {
        if (it->is_directory(ignored) && !it->is_symlink(ignored))
            fs::permissions(it->path(), fs::perms::owner_all, fs::perm_options::add, ignored);
    }
    fs::remove_all(root, ignored);
}

} // namespace

bool rig::isInFreshRoot()
{
    return std::getenv(rootVariable) != nullptr;
}

QString rig::installRoot()
{
    return QString::fromLocal8Bit(std::getenv(rootVariable));
}

bool rig::isRootPrivate()
{
    fs::path current = fs::canonical(std::getenv(rootVariable));
    for (;; current = current.parent_path()) {
        struct stat status
        {
        };
        if (stat(current.c_str(), &status) != 0 || (status.st_uid != 0 && status.st_uid != geteuid()))
            return false;
        if ((status.st_mode & (S_IWGRP | S_IWOTH)) && !(status.st_mode & S_ISVTX))
            return false;
        if (current == current.root_path())
            return true;
    }
}

unsigned rig::seed()
{
    return static_cast<unsigned>(std::strtoul(std::getenv(seedVariable), nullptr, 10));
}

int rig::runInFreshRoot(char** argv)
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
    // From the terminal or a watchdog, to both: the child ends, this process cleans up.
    std::signal(SIGINT, SIG_IGN);
    std::signal(SIGABRT, SIG_IGN);
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
