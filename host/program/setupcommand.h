// The command that lays an installation out, also for a group.
#pragma once

#include "host/program/commandline.h"

namespace host {

int setUpCommand(const QStringList& arguments, CommandStreams& io);

} // namespace host
