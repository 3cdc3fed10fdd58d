#include "rig/runs/runprocess.h"

#include "rig/time/virtualtime.h"

#include <QtGlobal>

namespace {

constexpr std::int64_t wallClockMs = 1700000000000; // any day will do

void keepQuiet(QtMsgType, const QMessageLogContext&, const QString&) {}

} // namespace

void rig::beginRunProcess()
{
    qInstallMessageHandler(keepQuiet);
    startVirtualTime(wallClockMs);
}
