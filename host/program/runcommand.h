// The command that serves.
#pragma once

#include "host/program/commandline.h"

namespace host {

int runHostCommand(const QStringList& arguments, CommandStreams& io);

} // namespace host
