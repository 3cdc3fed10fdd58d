#include "tests/soak/onerun.h"

#include <cinttypes>
#include <cstdio>

#include <QCoreApplication>

#include "tests/soak/linkrun.h"
#include "tests/soak/sessionrun.h"
#include "tests/soak/virtualtime.h"

namespace soak {

namespace {

constexpr std::int64_t wallClockMs = 1700000000000; // any day will do

// The channel tells each damaged packet to Qt's debug output.
void keepQuiet(QtMsgType, const QMessageLogContext&, const QString&) {}

RunResult run(const Scenario& scenario)
{
    switch (scenario.kind) {
    case Kind::Link:
    case Kind::LinkToPlain:
        return runLink(scenario);
    case Kind::Session:
    case Kind::SessionToPlain:
        return runSessions(scenario);
    }
    return RunResult();
}

} // namespace

bool runAndReport(const Scenario& scenario)
{
    int argc = 1;
    char name[] = "soak";
    char* argv[] = {name, nullptr};
    qInstallMessageHandler(keepQuiet);
    startVirtualTime(wallClockMs);
    QCoreApplication application(argc, argv);
    const RunResult result = run(scenario);
    std::printf("figures %" PRId64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRIu64 " %" PRId64 " %016" PRIx64 "\n", result.virtualNs,
                result.bytesDelivered, result.bytesCarried, result.faults, result.connections,
                result.longestStandstillNs, result.digest);
    for (const std::string& violation : result.violations)
        std::printf("violation %s\n", violation.c_str());
    std::printf("end\n");
    std::fflush(stdout);
    return result.violations.empty();
}

} // namespace soak
