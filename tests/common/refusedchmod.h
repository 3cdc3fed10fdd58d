// A system that refuses to change permissions, for SystemCallWatch.
#pragma once

#include "tests/support/systemcalls.h"

#include <cerrno>
#include <functional>

namespace testsupport {

// Fails each change of permissions with EPERM, after onCall, when given, was called.
inline Judge refusedChmod(std::function<void()> onCall = {})
{
    return [onCall](SystemCall& call) {
        if (call.name != "chmod" && call.name != "fchmod")
            return 0;
        if (onCall)
            onCall();
        return EPERM;
    };
}

} // namespace testsupport
