// An installation for runs in processes of their own, as the code under test finds it: the
// program in bin/, its settings beside it. Each run is this same program once more.
#pragma once

#include "rig/runs/channelsettings.h"

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

namespace rig {

// A run on its way: the caller closes the descriptor and waits for the process.
struct StartedRun
{
    pid_t process = 0;
    int output = -1; // what it prints, until it ends
};

// How a run has ended, from its wait status: in words.
std::string describeEnd(int status);

class RunInstallation
{
public:
    // Under the directory for temporary files; named after the program. Like prepare() and
    // start() it throws a std::exception when something of the system fails.
    RunInstallation();
    ~RunInstallation(); // removes everything; no run may be on its way
    RunInstallation(const RunInstallation&) = delete;
    RunInstallation& operator=(const RunInstallation&) = delete;

    // Nothing is left over from an earlier run, and settings.ini holds settings.
    void prepare(const ChannelSettings& settings);

    // Starts the program in it with these arguments. It dies with this process; what of the
    // environment would make it go another way is fixed.
    StartedRun start(const std::vector<std::string>& arguments) const;

private:
    std::filesystem::path m_root;
    std::filesystem::path m_program;
};

} // namespace rig
