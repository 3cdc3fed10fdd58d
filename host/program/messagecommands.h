// The commands that queue messages and take them back.
#pragma once

#include "host/program/commandline.h"

namespace host {

int sendFiles(const CommandLine& given, CommandStreams& io);
int cancelMessages(const CommandLine& given, CommandStreams& io);

} // namespace host
