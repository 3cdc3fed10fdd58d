// Makes the session protocol for every new connection.
#pragma once

#include "plugin/api/channelapi_export.h"

class CAbstractProtocol;
class CChannel;

class CHANNELAPI_EXPORT CAbstractProtocolFactory
{
public:
    virtual ~CAbstractProtocolFactory();

    // Returns a new protocol over channel, owned by the caller; the protocol takes over
    // the channel. Called from the port workers' threads, possibly several at the same time. Return
    // null to refuse the connection (the worker then deletes the channel and hangs up).
    virtual CAbstractProtocol* createProtocol(CChannel* channel) = 0;
};
