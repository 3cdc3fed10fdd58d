#include "tests/soak/onerun.h"

#include "rig/runs/runprocess.h"
#include "rig/seededrandomness.h"
#include "tests/soak/hubrun.h"
#include "tests/soak/linkrun.h"
#include "tests/soak/sessionrun.h"

#include <QCoreApplication>

#include <cinttypes>
#include <cstdio>

namespace soak {

using namespace rig;

namespace {

RunResult run(const Scenario& scenario)
{
    switch (scenario.kind) {
    case Kind::Link:
    case Kind::LinkToPlain: return runLink(scenario);
    case Kind::Session:
    case Kind::SessionToPlain: return runSessions(scenario);
    case Kind::Hub:
        return runHub(makeHubScenario(scenario.seed),
                      QCoreApplication::applicationDirPath().toStdString() + "/../data/hub");
    }
    return RunResult();
}

} // namespace

bool runAndReport(const Scenario& scenario)
{
    int argc = 1;
    char name[] = "soak";
    char* argv[] = {name, nullptr};
    beginRunProcess();
    rig::seedRandomness(scenario.seed);
    QCoreApplication application(argc, argv);
    const RunResult result = run(scenario);
    std::printf("figures %" PRId64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRId64 " %016" PRIx64 "\n",
                result.virtualNs, result.bytesDelivered, result.bytesCarried, result.faults, result.connections,
                result.longestStandstillNs, result.digest);
    for (const std::string& violation : result.violations)
        std::printf("violation %s\n", violation.c_str());
    std::printf("end\n");
    std::fflush(stdout);
    return result.violations.empty();
}

} // namespace soak
