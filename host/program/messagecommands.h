// The commands that queue messages and take them back.
#pragma once

#include "host/program/commandline.h"

namespace host {

int sendCommand(const QStringList& arguments, CommandStreams& io);
int cancelCommand(const QStringList& arguments, CommandStreams& io);

} // namespace host
