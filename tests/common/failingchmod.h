// A system that refuses to change permissions.
#pragma once

#include <functional>

namespace testsupport {

// While an object of this class lives, chmod and fchmod of the process fail with EPERM, after
// onCall, when given, was called.
class FailingChmod
{
public:
    explicit FailingChmod(std::function<void()> onCall = {});
    ~FailingChmod();
    FailingChmod(const FailingChmod&) = delete;
    FailingChmod& operator=(const FailingChmod&) = delete;
};

} // namespace testsupport
