// Runs the benchmarks in a fresh installation root, for the log and the settings they write.
#include "rig/freshroot.h"

#include <QCoreApplication>
#include <benchmark/benchmark.h>

int main(int argc, char** argv)
{
    if (!rig::isInFreshRoot())
        return rig::runInFreshRoot(argv);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    QCoreApplication application(argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    return 0;
}
