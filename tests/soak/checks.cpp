#include "tests/soak/checks.h"

#include "rig/time/virtualtime.h"

#include <cstdio>
#include <malloc.h>

namespace soak {

using namespace rig;

void Checks::violation(const std::string& text)
{
    if (m_violations.size() >= mostViolations)
        return;
    char time[32];
    std::snprintf(time, sizeof(time), "%.3f s: ", static_cast<double>(nowNs()) / nsPerS);
    m_violations.push_back(time + text);
}

void Checks::checkMemory(std::size_t limit)
{
    const std::size_t used = mallinfo2().uordblks;
    if (m_memoryAtFirst == 0)
        m_memoryAtFirst = used;
    if (used > m_memoryAtFirst + limit)
        violation("memory has grown by " + std::to_string(used - m_memoryAtFirst) + " bytes");
}

} // namespace soak
