// The plug-in object: what one kind of channel is called and how its server is made.
#pragma once

#include "plugin/api/channelapi_export.h"

#include <QString>

class CChannelServer;

// The order of the virtual operations is part of the contract between host and
// plug-in. All operations are reentrant and may be called from any thread.
class CHANNELAPI_EXPORT CChannelPlugin
{
public:
    virtual ~CChannelPlugin();

    // The channel type number (channeltype.h).
    virtual int type() const = 0;

    // The channel's display name, for users.
    virtual QString name() const = 0;

    // Makes a new server; the caller owns it. The server lives in the calling thread
    // until it is moved, and may outlive the plug-in object.
    virtual CChannelServer* create() const = 0;

    // Lengthen or shorten a call timeout in place, with some randomness so that two
    // parties that keep calling each other do not stay in step. The unit is the host's.
    virtual void incCallTimeout(int* timeout) const = 0;
    virtual void decCallTimeout(int* timeout) const = 0;
};
