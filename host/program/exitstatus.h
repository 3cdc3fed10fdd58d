// The exit status of the program.
#pragma once

#include "host/transporthost.h"

namespace host {

constexpr int exitDone = static_cast<int>(HostEnd::Done);
constexpr int exitFailed = static_cast<int>(HostEnd::Failed);
constexpr int exitWrongUsage = static_cast<int>(HostEnd::Usage);

} // namespace host
