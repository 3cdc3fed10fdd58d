// The soak program: runs scenarios over simulated lines in simulated time, each in a
// process of its own with settings of its own, until so many virtual hours are full.
#include "rig/runs/commandline.h"
#include "rig/runs/runinstallation.h"
#include "rig/runs/stoprequest.h"
#include "tests/soak/onerun.h"
#include "tests/soak/scenario.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <sys/wait.h>
#include <unistd.h>
#include <utility>
#include <vector>

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
    std::string adaptive = "none";
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

const char usageText[] = "Usage: soak [options]\n"
                         "       soak --run KIND SEED ENDS    one run, in this process, with the settings found\n"
                         "\n"
                         "  --hours N       virtual hours to run (default 1)\n"
                         "  --seed S        the first seed; the following runs count on from it (default 1)\n"
                         "  --kinds K,...   link, link-plain, session, session-plain, hub (default: all, in turn)\n"
                         "  --replay FILE   the runs listed in FILE instead, one \"KIND SEED\" a line\n"
                         "  --once KIND SEED    that run instead\n"
                         "  --twice         every run twice, which must go the same way\n"
                         "  --adaptive ENDS which ends send adaptively: none, one, both, drawn (default none)\n"
                         "  --verbose       tell every run\n"
                         "\n"
                         "Exit status 0 only if nothing that must hold was violated.\n";

Kind kindNamed(const std::string& name)
{
    for (const Kind kind : soak::allKinds) {
        if (name == soak::kindName(kind))
            return kind;
    }
    rig::fail("no such kind of run: " + name);
}

soak::Adaptive adaptiveNamed(const std::string& name)
{
    const std::map<std::string, soak::Adaptive> names{{"none", soak::Adaptive::None},
                                                      {"one", soak::Adaptive::One},
                                                      {"both", soak::Adaptive::Both},
                                                      {"drawn", soak::Adaptive::Drawn}};
    const auto found = names.find(name);
    if (found == names.end())
        rig::fail("--adaptive takes none, one, both or drawn");
    return found->second;
}

Options readOptions(int argc, char** argv)
{
    Options options;
    rig::CommandLine line(argc, argv, usageText);
    while (line.next()) {
        const std::string& name = line.option();
        if (name == "--hours") {
            options.hours = rig::number(line.value());
        } else if (name == "--seed") {
            options.seed = rig::wholeNumber(line.value());
        } else if (name == "--replay") {
            options.replay = line.value();
        } else if (name == "--once") {
            const Kind kind = kindNamed(line.value());
            options.once.emplace_back(kind, rig::wholeNumber(line.value()));
        } else if (name == "--adaptive") {
            options.adaptive = line.value();
            adaptiveNamed(options.adaptive);
        } else if (name == "--twice") {
            options.twice = true;
        } else if (name == "--verbose") {
            options.verbose = true;
        } else if (name == "--kinds") {
            options.kinds.clear();
            for (const std::string& kind : rig::parts(line.value()))
                options.kinds.push_back(kindNamed(kind));
            if (options.kinds.empty())
                rig::fail("--kinds needs a kind of run");
        } else {
            line.unknownOption();
        }
    }
    return options;
}

// What the run printed; empty when it took too long, or the program is to stop.
std::string outputOf(const rig::StartedRun& run, rig::StopRequest& stop)
{
    std::string output;
    const auto deadline = Clock::now() + std::chrono::milliseconds(longestRunMs);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd waited{run.output, POLLIN, 0};
        const int ready = left > 0 ? stop.poll(&waited, 1, static_cast<int>(left)) : 0;
        if (ready < 0 && !stop.isAsked())
            continue;
        if (ready <= 0) {
            kill(run.process, ready < 0 ? SIGKILL : SIGABRT);
            return std::string();
        }
        char buffer[4096];
        const ssize_t size = read(run.output, buffer, sizeof(buffer));
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
            words >> ns >> outcome.delivered >> outcome.carried >> outcome.faults >> outcome.connections >>
                standstillNs >> outcome.digest;
            outcome.virtualS = ns / rig::nsPerS;
            outcome.standstillS = standstillNs / rig::nsPerS;
        } else if (first == "violation") {
            outcome.violations.push_back(line.substr(first.size() + 1));
        } else if (first == "end") {
            whole = true;
        }
    }
    // A process may have told all and yet end badly, as of a sanitizer's findings.
    if (!whole || (outcome.violations.empty() && status != 0))
        outcome.violations.push_back(rig::describeEnd(status));
    return outcome;
}

Outcome runOnce(rig::RunInstallation& installation, Kind kind, std::uint64_t seed, const std::string& adaptive,
                rig::StopRequest& stop)
{
    installation.prepare(soak::makeScenario(kind, seed).channel);
    const rig::StartedRun run = installation.start({"--run", soak::kindName(kind), std::to_string(seed), adaptive});
    const std::string output = outputOf(run, stop);
    close(run.output);
    int status = 0;
    while (waitpid(run.process, &status, 0) < 0 && errno == EINTR) {
    }
    return parseOutcome(output, status);
}

class Soak
{
public:
    // Neither is owned.
    Soak(const Options& options, rig::StopRequest& stop) : m_options(options), m_stop(stop), m_start(Clock::now()) {}

    // A run that the program's end breaks off does not count.
    void run(Kind kind, std::uint64_t seed)
    {
        if (m_stop.isAsked())
            return;
        const auto before = Clock::now();
        Outcome outcome = runOnce(m_installation, kind, seed, m_options.adaptive, m_stop);
        if (m_options.twice && runOnce(m_installation, kind, seed, m_options.adaptive, m_stop).digest != outcome.digest)
            outcome.violations.push_back("went another way the second time");
        if (m_stop.isAsked())
            return;
        count(kind, seed, outcome);
        if (m_options.verbose || !outcome.violations.empty()) {
            std::printf("%s: %.2f h in %.1f s, %" PRIu64 " bytes delivered, %" PRIu64 " faults, %" PRIu64
                        " connections, stood still for %.0f s\n",
                        soak::describe(soak::makeScenario(kind, seed, adaptiveNamed(m_options.adaptive))).c_str(),
                        outcome.virtualS / secondsPerHour, secondsSince(before), outcome.delivered, outcome.faults,
                        outcome.connections, outcome.standstillS);
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
                    totals.runs, totals.virtualS / secondsPerHour, totals.delivered, totals.carried, totals.faults,
                    totals.connections, totals.standstillS, totals.failed.size());
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
    rig::StopRequest& m_stop;
    rig::RunInstallation m_installation;
    Clock::time_point m_start;
    double m_nextProgressS = progressEveryS;
    Totals m_all;
    std::map<Kind, Totals> m_byKind;
};

void replay(Soak& soakRuns, const std::string& path)
{
    std::ifstream list(path);
    if (!list)
        rig::fail("cannot read " + path);
    for (std::string line; std::getline(list, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        std::string kind;
        std::string seed;
        std::string more;
        if (!(words >> kind))
            continue;
        if (!(words >> seed) || words >> more)
            rig::fail("not a run: " + line);
        soakRuns.run(kindNamed(kind), rig::wholeNumber(seed));
    }
}

bool runAll(const Options& options, rig::StopRequest& stop)
{
    Soak soakRuns(options, stop);
    for (const auto& [kind, seed] : options.once)
        soakRuns.run(kind, seed);
    if (!options.replay.empty()) {
        replay(soakRuns, options.replay);
    } else if (options.once.empty()) {
        std::printf("seeds from %" PRIu64 " on\n", options.seed);
        for (std::uint64_t seed = options.seed; soakRuns.virtualHours() < options.hours && !stop.isAsked(); ++seed) {
            for (const Kind kind : options.kinds)
                soakRuns.run(kind, seed);
        }
    }
    return soakRuns.summary();
}

int runProgram(int argc, char** argv)
{
    if (argc == 5 && std::strcmp(argv[1], "--run") == 0) {
        const soak::Scenario scenario =
            soak::makeScenario(kindNamed(argv[2]), rig::wholeNumber(argv[3]), adaptiveNamed(argv[4]));
        return soak::runAndReport(scenario) ? 0 : 1;
    }
    const Options options = readOptions(argc, argv);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    rig::StopRequest stop;
    const bool isGood = runAll(options, stop);
    stop.obey();
    return isGood ? 0 : 1;
}

} // namespace

int main(int argc, char** argv)
{
    return rig::exitStatusOf("soak", runProgram, argc, argv);
}
