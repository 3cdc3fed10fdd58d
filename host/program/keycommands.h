// The commands for keys: our own, and those that are let in by no means.
#pragma once

#include "host/program/commandline.h"

namespace host {

int keyCommand(const QStringList& arguments, CommandStreams& io);
int keyBlock(const QStringList& arguments, CommandStreams& io);
int keyUnblock(const QStringList& arguments, CommandStreams& io);

} // namespace host
