// The host's table of channels with their state texts and traffic counters.
#pragma once

#include "plugin/api/channelapi_export.h"

#include <QString>

// Called from the server's thread and from every port worker's thread: the host's
// implementation must accept calls from any thread. The order of the virtual
// operations is part of the contract between host and plug-in.
class CHANNELAPI_EXPORT CAbstractChannelsState
{
public:
    virtual ~CAbstractChannelsState();

    // Registers a channel entry and returns its identifier.
    virtual int addChannel(int type, const QString& name, const QString& state) = 0;

    // The entry's worker has ended.
    virtual void removeChannel(int id) = 0;

    // Shows a state text.
    virtual void setState(int id, const QString& text) = 0;

    // Payload bytes delivered in order.
    virtual void addReceivedBytes(int id, int bytes) = 0;

    // Payload bytes that the peer has confirmed.
    virtual void addSentBytes(int id, int bytes) = 0;
};
