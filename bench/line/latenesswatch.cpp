#include "bench/line/latenesswatch.h"

#include <cstdio>
#include <ctime>
#include <poll.h>
#include <unistd.h>

namespace benchline {

namespace {

constexpr double pauseSeconds = 0.005;

double nowSeconds()
{
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}

bool inputEnded()
{
    char sink[64];
    pollfd entry{STDIN_FILENO, POLLIN, 0};
    return poll(&entry, 1, 0) > 0 && read(STDIN_FILENO, sink, sizeof(sink)) <= 0;
}

} // namespace

int watchLateness()
{
    const timespec pause{0, static_cast<long>(pauseSeconds * 1e9)};
    while (!inputEnded()) {
        const double before = nowSeconds();
        nanosleep(&pause, nullptr);
        const double after = nowSeconds();
        const double latenessMs = (after - before - pauseSeconds) * 1e3;
        if (latenessMs > toldLatenessMs) {
            printf("%.3f %.1f\n", after, latenessMs);
            fflush(stdout);
        }
    }
    return 0;
}

} // namespace benchline
