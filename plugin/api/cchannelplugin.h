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

    // Make a call timeout longer or shorter, in place and partly at random, so that two parties that
    // call each other do not always do so at the same moment. The host chooses the unit.
    virtual void incCallTimeout(int* timeout) const = 0;
    virtual void decCallTimeout(int* timeout) const = 0;
};
