#include "tests/soak/checks.h"

#include <cstdio>

#include <malloc.h>

#include "tests/soak/virtualtime.h"

namespace soak {

void Checks::violation(const std::string& text)
{
    if (m_violations.size() >= mostViolations)
        return;
    char time[32];
    std::snprintf(time, sizeof(time), "%.3f s: ", static_cast<double>(nowNs()) / nsPerS);
    m_violations.push_back(time + text);
}

std::size_t Checks::grownBytes()
{
    const std::size_t used = mallinfo2().uordblks;
    if (m_memoryAtFirst == 0)
        m_memoryAtFirst = used;
    return used > m_memoryAtFirst ? used - m_memoryAtFirst : 0;
}

bool Checks::isMemoryWithin(std::size_t limit)
{
    return grownBytes() <= limit;
}

void Checks::checkMemory(std::size_t limit)
{
    const std::size_t grown = grownBytes();
    if (grown > limit)
        violation("memory has grown by " + std::to_string(grown) + " bytes");
}

} // namespace soak
