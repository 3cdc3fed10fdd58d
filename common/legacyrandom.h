// The pseudo-random numbers that file names and timeouts are drawn from.
#pragma once

#include <QtGlobal>

// qrand(): never negative. This code never seeds it, so a program that does decides the sequence.
// Do not use it for secrets.
inline int legacyRandom()
{
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    return qrand();
    QT_WARNING_POP
}
