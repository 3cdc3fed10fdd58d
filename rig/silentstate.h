// A channels' state that keeps nothing: for channels whose reports nobody wants to see, and to
// derive from where only some matter.
#pragma once

#include "plugin/api/cabstractchannelsstate.h"

namespace rig {

class SilentState : public CAbstractChannelsState
{
public:
    int addChannel(int, const QString&, const QString&) override { return 0; }
    void removeChannel(int) override {}
    void setState(int, const QString&) override {}
    void addReceivedBytes(int, int) override {}
    void addSentBytes(int, int) override {}
};

} // namespace rig
