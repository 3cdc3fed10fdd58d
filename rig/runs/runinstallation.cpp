#include "rig/runs/runinstallation.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <system_error>
#include <unistd.h>

namespace fs = std::filesystem;

namespace rig {

namespace {

[[noreturn]] void failOfSystem(const std::string& what)
{
    throw std::system_error(errno, std::generic_category(), what);
}

// In the child of a fork.
[[noreturn]] void becomeRun(const fs::path& program, const std::vector<std::string>& arguments, pid_t parent,
                            int output)
{
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (getppid() != parent) // it was gone before it could be watched
        _exit(127);
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
    if (dup2(output, STDOUT_FILENO) < 0)
        _exit(127);
    // Whatever else would differ from run to run.
    setenv("QT_HASH_SEED", "0", 1);
    setenv("QT_NO_CPU_FEATURE", "rdrnd rdseed", 1);
    setenv("QT_NO_GLIB", "1", 1);
    setenv("TZ", "UTC0", 1);
    std::string name = program.filename();
    std::vector<char*> words{name.data()};
    for (const std::string& argument : arguments)
        words.push_back(const_cast<char*>(argument.c_str()));
    words.push_back(nullptr);
    execv(program.c_str(), words.data());
    _exit(127);
}

} // namespace

std::string describeEnd(int status)
{
    return WIFSIGNALED(status) ? std::string("ended by signal ") + strsignal(WTERMSIG(status))
                               : "ended with status " + std::to_string(WEXITSTATUS(status));
}

RunInstallation::RunInstallation()
{
    const fs::path program = fs::canonical("/proc/self/exe");
    std::string pattern = (fs::temp_directory_path() / (program.filename().string() + "-XXXXXX")).string();
    if (!mkdtemp(pattern.data()))
        failOfSystem("no directory for the runs");
    m_root = pattern;
    m_program = m_root / "bin" / program.filename();
    fs::create_directory(m_root / "bin");
    std::error_code error;
    fs::create_hard_link(program, m_program, error);
    if (error)
        fs::copy_file(program, m_program);
}

RunInstallation::~RunInstallation()
{
    std::error_code ignored;
    fs::remove_all(m_root, ignored);
}

void RunInstallation::prepare(const ChannelSettings& settings)
{
    for (const char* folder : {"settings", "data"})
        fs::remove_all(m_root / folder);
    fs::create_directory(m_root / "settings");
    const fs::path path = m_root / "settings" / "settings.ini";
    std::ofstream file(path);
    file << settingsText(settings);
    file.close();
    if (!file)
        failOfSystem("cannot write " + path.string());
}

StartedRun RunInstallation::start(const std::vector<std::string>& arguments) const
{
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) != 0)
        failOfSystem("no pipe for a run");
    const pid_t parent = getpid();
    const pid_t child = fork();
    if (child == 0)
        becomeRun(m_program, arguments, parent, ends[1]);
    close(ends[1]);
    if (child < 0) {
        close(ends[0]);
        failOfSystem("no process for a run");
    }
    return {child, ends[0]};
}

} // namespace rig
