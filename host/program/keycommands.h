// The commands for keys: our own, and those that are let in by no means.
#pragma once

#include "host/program/commandline.h"

namespace host {

int showKey(const CommandLine& given, CommandStreams& io);
int keyBlock(const CommandLine& given, CommandStreams& io);
int keyUnblock(const CommandLine& given, CommandStreams& io);

} // namespace host
