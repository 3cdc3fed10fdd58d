// The command that shows what waits, what came, and what the ports do.
#pragma once

#include "host/program/commandline.h"

namespace host {

int statusCommand(const QStringList& arguments, CommandStreams& io);

} // namespace host
