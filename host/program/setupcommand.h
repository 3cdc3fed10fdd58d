// The command that lays an installation out, also for a group.
#pragma once

#include "host/program/commandline.h"

namespace host {

int setUp(const CommandLine& given, CommandStreams& io);

} // namespace host
