#include "sim/program/stopsignals.h"

#include <csignal>
#include <initializer_list>
#include <sys/signalfd.h>

int sim::stopSignalDescriptor()
{
    sigset_t signalsToEnd;
    sigemptyset(&signalsToEnd);
    for (const int number : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&signalsToEnd, number);
    sigprocmask(SIG_BLOCK, &signalsToEnd, nullptr);
    return signalfd(-1, &signalsToEnd, SFD_CLOEXEC);
}
