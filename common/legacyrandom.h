// The pseudo-random numbers that file names and timeouts are drawn from.
#pragma once

#include <QtGlobal>

// qrand(): not negative, never seeded by this code, so that a program that seeds it decides
// the sequence. Not fit for secrets.
inline int legacyRandom()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    return qrand();
    QT_WARNING_POP
}
