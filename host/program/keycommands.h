// The commands for keys: our own, and those that are blocked.
#pragma once

#include "host/program/commandline.h"

namespace host {

int showKey(const CommandLine& given, CommandStreams& io);
int keyBlock(const CommandLine& given, CommandStreams& io);
int keyUnblock(const CommandLine& given, CommandStreams& io);

} // namespace host
