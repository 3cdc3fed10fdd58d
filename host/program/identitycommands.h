// The command for the name by which others know this installation.
#pragma once

#include "host/program/commandline.h"

namespace host {

int showOrSetName(const CommandLine& given, CommandStreams& io);

} // namespace host
