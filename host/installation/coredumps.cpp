#include "host/installation/coredumps.h"

#include <cerrno>
#include <sys/prctl.h>
#include <sys/resource.h>

namespace host {

QString forbidCoreDumps()
{
    // The limit has no effect if the system pipes core dumps to a collector; the flag does not apply to
    // the programs that this one starts. So both are set.
    rlimit none = {};
    if (::getrlimit(RLIMIT_CORE, &none) == 0)
        none.rlim_cur = 0;
    if (::setrlimit(RLIMIT_CORE, &none) != 0 || ::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) != 0)
        return QStringLiteral("cannot switch core dumps off: %1").arg(qt_error_string(errno));
    return QString();
}

} // namespace host
