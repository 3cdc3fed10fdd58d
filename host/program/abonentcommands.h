// The commands for those whom this installation knows.
#pragma once

#include "host/program/commandline.h"

namespace host {

int abonentAdd(const CommandLine& given, CommandStreams& io);
int abonentList(const CommandLine& given, CommandStreams& io);
int abonentForgetKey(const CommandLine& given, CommandStreams& io);
int abonentBlock(const CommandLine& given, CommandStreams& io);
int abonentUnblock(const CommandLine& given, CommandStreams& io);
int abonentRemove(const CommandLine& given, CommandStreams& io);

} // namespace host
