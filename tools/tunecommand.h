// The command line of transport-tune.
#pragma once

#include <QStringList>
#include <QTextStream>

namespace tune {

// arguments: of the process, with the program's name first. Returns the exit status: 0 done,
// 1 failed, 2 wrong usage. Needs an application object.
int runTune(const QStringList& arguments, QTextStream& out, QTextStream& err);

} // namespace tune
