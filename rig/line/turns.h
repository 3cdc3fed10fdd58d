// How the hosts at the two ends of a simulated line take turns, and what each reads in one.
#pragma once

#include "plugin/api/cchannel.h"
#include "rig/time/virtualtime.h"

#include <array>

namespace rig {

// Lets time pass until the next turn of either end; the end whose turn it is.
template <typename End>
End& awaitNextTurn(std::array<End, 2>& ends)
{
    End& end = ends[0].nextTurnNs() <= ends[1].nextTurnNs() ? ends[0] : ends[1];
    sleepUntilNs(end.nextTurnNs());
    return end;
}

// Reads until the channel has less than was asked for, and hands every piece on, the last
// (perhaps empty) one too.
template <typename Take>
void readAll(CChannel& channel, int bytesAtOnce, Take take)
{
    for (bool isMore = true; isMore;) {
        const QByteArray bytes = channel.read(bytesAtOnce);
        take(bytes);
        isMore = bytes.size() == bytesAtOnce;
    }
}

} // namespace rig
