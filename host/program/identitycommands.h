// The commands for what the others know this installation by.
#pragma once

#include "host/program/commandline.h"

namespace host {

int showOrSetName(const CommandLine& given, CommandStreams& io);

} // namespace host
