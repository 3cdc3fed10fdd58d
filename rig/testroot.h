// The fresh installation that every test process runs in: the test program stands in
// root/bin/, so that settings and data of the code under test go to root/settings/ and
// root/data/. The root is removed when the process ends.
#pragma once

#include <QString>

namespace rig {

// The installation root of this process, without a trailing slash.
QString installRoot();

// Whether nobody but root and this user can put something else in the place of the root: not so
// in the checkout of another user, say, that is mounted into a container.
bool isRootPrivate();

// The seed of this run: TEST_SEED from the environment, else drawn; printed when a test fails.
unsigned seed();

} // namespace rig
