// A system that refuses to change permissions.
#pragma once

namespace testsupport {

// While an object of this class lives, chmod and fchmod of the process fail with EPERM.
class FailingChmod
{
public:
    FailingChmod();
    ~FailingChmod();
    FailingChmod(const FailingChmod&) = delete;
    FailingChmod& operator=(const FailingChmod&) = delete;
};

} // namespace testsupport
