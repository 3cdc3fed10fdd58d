// The commands of the transport-host program.
#pragma once

#include <QStringList>
#include <QTextStream>

namespace host {

// arguments: of the process, with the program's name first. Returns the exit status:
// 0 done, 1 failed, 2 wrong usage, 3 the time ran out, 4 another host serves the
// installation, 5 an abonent answered with another key than the pinned one.
// Needs an application object; "run" runs its event loop.
int runCommand(const QStringList& arguments, QTextStream& out, QTextStream& err);

} // namespace host
