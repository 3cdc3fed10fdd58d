// The commands for what the others know this installation by.
#pragma once

#include "host/program/commandline.h"

namespace host {

int nameCommand(const QStringList& arguments, CommandStreams& io);

} // namespace host
