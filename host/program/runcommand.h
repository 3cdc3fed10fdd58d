// The command that serves.
#pragma once

#include "host/program/commandline.h"

namespace host {

int runHost(const CommandLine& given, CommandStreams& io);

} // namespace host
