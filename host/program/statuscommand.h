// The command that shows what waits, what came, and what the ports do.
#pragma once

#include "host/program/commandline.h"

namespace host {

int showStatus(const CommandLine& given, CommandStreams& io);

} // namespace host
