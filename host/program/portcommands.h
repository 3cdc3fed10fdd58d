// The commands for the serial ports.
#pragma once

#include "host/program/commandline.h"

namespace host {

int portAdd(const QStringList& arguments, CommandStreams& io);
int portList(const QStringList& arguments, CommandStreams& io);
int portRemove(const QStringList& arguments, CommandStreams& io);
int portPacketSize(const QStringList& arguments, CommandStreams& io);

} // namespace host
