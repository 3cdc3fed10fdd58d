// The soak program: runs scenarios over simulated lines in simulated time, each in a
// process of its own with settings of its own, until so many virtual hours are full.
#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include <poll.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/soak/onerun.h"
#include "tests/soak/scenario.h"

namespace fs = std::filesystem;

namespace {

using soak::Kind;
using Clock = std::chrono::steady_clock; // the parent's time is real

// A run that takes longer hangs; generous, as one of the slowest takes a minute.
constexpr int longestRunMs = 600000;
constexpr double secondsPerHour = 3600;
constexpr double progressEveryS = 10;

struct Options
{
    double hours = 1;
    std::uint64_t seed = 1;
    std::vector<Kind> kinds{soak::allKinds.begin(), soak::allKinds.end()};
    std::string replay; // a list of runs instead
    std::vector<std::pair<Kind, std::uint64_t>> once; // these runs instead
    bool twice = false; // each run again, which must go the same way
    bool verbose = false;
};

struct Outcome
{
    double virtualS = 0;
    std::uint64_t delivered = 0;
    std::uint64_t carried = 0;
    std::uint64_t faults = 0;
    std::uint64_t connections = 0;
    double standstillS = 0;
    std::string digest;
    std::vector<std::string> violations;
};

struct Totals
{
    int runs = 0;
    double virtualS = 0;
    std::uint64_t delivered = 0;
    std::uint64_t carried = 0;
    std::uint64_t faults = 0;
    std::uint64_t connections = 0;
    double standstillS = 0; // the longest
    std::vector<std::string> failed; // "kind seed"
};

const char usageText[] =
    "Usage: soak [options]\n"
    "       soak --run KIND SEED    one run, in this process, with the settings found\n"
    "\n"
    "  --hours N       virtual hours to run (default 1)\n"
    "  --seed S        the first seed; the following runs count on from it (default 1)\n"
    "  --kinds K,...   link, link-plain, session, session-plain (default: all, in turn)\n"
    "  --replay FILE   the runs listed in FILE instead, one \"KIND SEED\" a line\n"
    "  --once KIND SEED    that run instead\n"
    "  --twice         every run twice, which must go the same way\n"
    "  --verbose       tell every run\n"
    "\n"
    "Exit status 0 only if nothing that must hold was violated.\n";

[[noreturn]] void fail(const std::string& text)
{
    std::fprintf(stderr, "soak: %s\n", text.c_str());
    std::exit(2);
}

Kind kindNamed(const std::string& name)
{
    for (const Kind kind : soak::allKinds) {
        if (name == soak::kindName(kind))
            return kind;
    }
    fail("no such kind of run: " + name);
}

std::uint64_t number(const std::string& text)
{
    char* end = nullptr;
    const std::uint64_t value = std::strtoull(text.c_str(), &end, 10);
    if (text.empty() || *end)
        fail("not a number: " + text);
    return value;
}

Options readOptions(int argc, char** argv)
{
    Options options;
    for (int i = 1; i < argc; ++i) {
        const std::string name = argv[i];
        const auto value = [&]() -> std::string {
            if (++i >= argc)
                fail(name + " needs a value");
            return argv[i];
        };
        if (name == "--hours") {
            options.hours = std::strtod(value().c_str(), nullptr);
        } else if (name == "--seed") {
            options.seed = number(value());
        } else if (name == "--replay") {
            options.replay = value();
        } else if (name == "--once") {
            const Kind kind = kindNamed(value());
            options.once.emplace_back(kind, number(value()));
        } else if (name == "--twice") {
            options.twice = true;
        } else if (name == "--verbose") {
            options.verbose = true;
        } else if (name == "--kinds") {
            options.kinds.clear();
            std::istringstream names(value());
            for (std::string kind; std::getline(names, kind, ',');)
                options.kinds.push_back(kindNamed(kind));
        } else if (name == "--help" || name == "-h") {
            std::fputs(usageText, stdout);
            std::exit(0);
        } else {
            std::fputs(usageText, stderr);
            fail("unknown option: " + name);
        }
    }
    return options;
}

// An installation of its own for the runs, as the code under test finds it: the program
// in bin/, its settings beside it.
class Installation
{
public:
    Installation()
    {
        const fs::path program = fs::canonical("/proc/self/exe");
        std::string pattern = (fs::temp_directory_path() / "soak-XXXXXX").string();
        if (!mkdtemp(pattern.data()))
            fail(std::string("no directory for the runs: ") + std::strerror(errno));
        m_root = pattern;
        fs::create_directory(m_root / "bin");
        std::error_code error;
        fs::create_hard_link(program, m_program = m_root / "bin" / "soak", error);
        if (error)
            fs::copy_file(program, m_program);
    }

    ~Installation()
    {
        std::error_code ignored;
        fs::remove_all(m_root, ignored);
    }

    Installation(const Installation&) = delete;
    Installation& operator=(const Installation&) = delete;

    // Nothing is left over from an earlier run.
    void prepare(const soak::ChannelSettings& channel)
    {
        for (const char* folder : {"settings", "data"})
            fs::remove_all(m_root / folder);
        fs::create_directory(m_root / "settings");
        std::ofstream(m_root / "settings" / "settings.ini") << soak::settingsText(channel);
    }

    const fs::path& program() const { return m_program; }

private:
    fs::path m_root;
    fs::path m_program;
};

pid_t startRun(const Installation& installation, Kind kind, std::uint64_t seed, int output)
{
    const std::string seedText = std::to_string(seed);
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        dup2(output, STDOUT_FILENO);
        // Whatever else would differ from run to run.
        setenv("QT_HASH_SEED", "0", 1);
        setenv("QT_NO_GLIB", "1", 1);
        setenv("TZ", "UTC0", 1);
        execl(installation.program().c_str(), "soak", "--run", soak::kindName(kind), seedText.c_str(), nullptr);
        _exit(127);
    }
    return child;
}

// What the run printed; empty when it took too long.
std::string outputOf(int fd, pid_t child)
{
    std::string output;
    const auto deadline = Clock::now() + std::chrono::milliseconds(longestRunMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited{fd, POLLIN, 0};
        if (left <= 0 || poll(&waited, 1, static_cast<int>(left)) == 0) {
            kill(child, SIGABRT);
            return std::string();
        }
        char buffer[4096];
        const ssize_t size = read(fd, buffer, sizeof(buffer));
        if (size <= 0)
            return output;
        output.append(buffer, static_cast<std::size_t>(size));
    }
}

Outcome parseOutcome(const std::string& output, int status)
{
    Outcome outcome;
    bool whole = false;
    std::istringstream lines(output);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string first;
        words >> first;
        if (first == "figures") {
            double ns = 0;
            double standstillNs = 0;
            words >> ns >> outcome.delivered >> outcome.carried >> outcome.faults >> outcome.connections >> standstillNs >>
                outcome.digest;
            outcome.virtualS = ns / soak::nsPerS;
            outcome.standstillS = standstillNs / soak::nsPerS;
        } else if (first == "violation") {
            outcome.violations.push_back(line.substr(first.size() + 1));
        } else if (first == "end") {
            whole = true;
        }
    }
    if (!whole)
        outcome.violations.push_back(WIFSIGNALED(status) ? std::string("ended by signal ") + strsignal(WTERMSIG(status))
                                                         : "ended with status " + std::to_string(WEXITSTATUS(status)));
    return outcome;
}

Outcome runOnce(Installation& installation, Kind kind, std::uint64_t seed)
{
    installation.prepare(soak::makeScenario(kind, seed).channel);
    int ends[2];
    if (pipe(ends) != 0)
        fail("no pipe");
    const pid_t child = startRun(installation, kind, seed, ends[1]);
    close(ends[1]);
    const std::string output = outputOf(ends[0], child);
    close(ends[0]);
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return parseOutcome(output, status);
}

class Soak
{
public:
    explicit Soak(const Options& options) : m_options(options), m_start(Clock::now()) {}

    void run(Kind kind, std::uint64_t seed)
    {
        const auto before = Clock::now();
        Outcome outcome = runOnce(m_installation, kind, seed);
        if (m_options.twice && runOnce(m_installation, kind, seed).digest != outcome.digest)
            outcome.violations.push_back("went another way the second time");
        count(kind, seed, outcome);
        if (m_options.verbose || !outcome.violations.empty()) {
            std::printf("%s: %.2f h in %.1f s, %" PRIu64 " bytes delivered, %" PRIu64 " faults, %" PRIu64 " connections\n",
                        soak::describe(soak::makeScenario(kind, seed)).c_str(), outcome.virtualS / secondsPerHour,
                        secondsSince(before), outcome.delivered, outcome.faults, outcome.connections);
        }
        for (const std::string& violation : outcome.violations)
            std::printf("  VIOLATION %s\n", violation.c_str());
        tellProgress();
    }

    double virtualHours() const { return m_all.virtualS / secondsPerHour; }

    bool summary() const
    {
        std::printf("\n%-14s %6s %9s %12s %12s %11s %12s %11s %10s\n", "kind", "runs", "hours", "delivered", "carried",
                    "faults", "connections", "standstill", "violations");
        for (const auto& [kind, totals] : m_byKind)
            print(soak::kindName(kind), totals);
        print("all", m_all);
        std::printf("real time %.0f s, %.0f virtual hours an hour\n", secondsSince(m_start),
                    virtualHours() / secondsSince(m_start) * secondsPerHour);
        for (const std::string& failed : m_all.failed)
            std::printf("failed: %s\n", failed.c_str());
        return m_all.failed.empty();
    }

private:
    static double secondsSince(Clock::time_point time)
    {
        return std::chrono::duration<double>(Clock::now() - time).count();
    }

    static void print(const char* name, const Totals& totals)
    {
        std::printf("%-14s %6d %9.2f %12" PRIu64 " %12" PRIu64 " %11" PRIu64 " %12" PRIu64 " %9.0f s %10zu\n", name,
                    totals.runs,
                    totals.virtualS / secondsPerHour, totals.delivered, totals.carried, totals.faults, totals.connections,
                    totals.standstillS, totals.failed.size());
    }

    void count(Kind kind, std::uint64_t seed, const Outcome& outcome)
    {
        for (Totals* totals : {&m_all, &m_byKind[kind]}) {
            ++totals->runs;
            totals->virtualS += outcome.virtualS;
            totals->delivered += outcome.delivered;
            totals->carried += outcome.carried;
            totals->faults += outcome.faults;
            totals->connections += outcome.connections;
            totals->standstillS = std::max(totals->standstillS, outcome.standstillS);
            if (!outcome.violations.empty())
                totals->failed.push_back(std::string(soak::kindName(kind)) + " " + std::to_string(seed));
        }
    }

    void tellProgress()
    {
        if (secondsSince(m_start) < m_nextProgressS)
            return;
        m_nextProgressS = secondsSince(m_start) + progressEveryS;
        std::printf("%d runs, %.1f of %.1f virtual hours, %zu with violations, %.0f s\n", m_all.runs, virtualHours(),
                    m_options.hours, m_all.failed.size(), secondsSince(m_start));
        std::fflush(stdout);
    }

    const Options& m_options;
    Installation m_installation;
    Clock::time_point m_start;
    double m_nextProgressS = progressEveryS;
    Totals m_all;
    std::map<Kind, Totals> m_byKind;
};

void replay(Soak& soakRuns, const std::string& path)
{
    std::ifstream list(path);
    if (!list)
        fail("cannot read " + path);
    for (std::string line; std::getline(list, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string kind;
        std::string seed;
        if (words >> kind >> seed)
            soakRuns.run(kindNamed(kind), number(seed));
    }
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--run") == 0)
        return soak::runAndReport(soak::makeScenario(kindNamed(argv[2]), number(argv[3]))) ? 0 : 1;
    const Options options = readOptions(argc, argv);
    Soak soakRuns(options);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    for (const auto& [kind, seed] : options.once)
        soakRuns.run(kind, seed);
    if (!options.replay.empty()) {
        replay(soakRuns, options.replay);
    } else if (options.once.empty()) {
        std::printf("seeds from %" PRIu64 " on\n", options.seed);
        for (std::uint64_t seed = options.seed; soakRuns.virtualHours() < options.hours; ++seed) {
            for (const Kind kind : options.kinds)
                soakRuns.run(kind, seed);
        }
    }
    return soakRuns.summary() ? 0 : 1;
}
