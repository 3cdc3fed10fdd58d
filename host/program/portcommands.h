// The commands for the serial ports.
#pragma once

#include "host/program/commandline.h"

namespace host {

int portAdd(const CommandLine& given, CommandStreams& io);
int portList(const CommandLine& given, CommandStreams& io);
int portRemove(const CommandLine& given, CommandStreams& io);
int portPacketSize(const CommandLine& given, CommandStreams& io);

} // namespace host
