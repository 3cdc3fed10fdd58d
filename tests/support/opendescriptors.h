// How many files this process holds open: one more after each call is a leak that ends a host which
// runs for months.
#pragma once

#include <QDir>

namespace testsupport {

inline int openDescriptors()
{
    return QDir(QStringLiteral("/proc/self/fd"))
        .entryList(QDir::NoDotAndDotDot | QDir::AllEntries | QDir::System)
        .size();
}

} // namespace testsupport
