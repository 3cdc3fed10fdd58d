// A fresh installation root for a program of the tests, since many values of the code
// under test are read once per process and kept in files beside the program.
#pragma once

namespace rig {

// Whether this process already runs in a root of its own.
bool isInFreshRoot();

// Runs this program again, with the same arguments, as root/bin/<its name> of a new root;
// removes the root when it has ended and answers its exit status.
int runInFreshRoot(char** argv);

} // namespace rig
