#include "host/installation/coredumps.h"

#include <cerrno>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace host {

QString forbidCoreDumps()
{
    // The limit alone does not hold where the system pipes them to a collector; the flag alone
    // does not pass on to the programs that this one starts.
    rlimit none = {};
    if (::getrlimit(RLIMIT_CORE, &none) == 0)
        none.rlim_cur = 0;
    if (::setrlimit(RLIMIT_CORE, &none) != 0 || ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0)
        return QStringLiteral("cannot switch core dumps off: %1").arg(qt_error_string(errno));
    return QString();
}

} // namespace host
