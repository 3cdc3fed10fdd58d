// The commands for those whom this installation knows.
#pragma once

#include "host/program/commandline.h"

namespace host {

int abonentAdd(const QStringList& arguments, CommandStreams& io);
int abonentList(const QStringList& arguments, CommandStreams& io);
int abonentForgetKey(const QStringList& arguments, CommandStreams& io);
int abonentBlock(const QStringList& arguments, CommandStreams& io);
int abonentUnblock(const QStringList& arguments, CommandStreams& io);
int abonentRemove(const QStringList& arguments, CommandStreams& io);

} // namespace host
