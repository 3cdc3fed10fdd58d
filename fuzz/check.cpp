#include "fuzz/check.h"

#include <cstdio>
#include <cstdlib>

void fuzz::require(bool holds, const char* what)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}
