// The byte channel that a host's session protocol reads and writes.
#pragma once

#include "plugin/api/channelapi_export.h"

#include <QByteArray>

// A channel is made by a port worker for one connection, is owned by the protocol
// that runs over it and is used only from that worker's thread. The order of the
// virtual operations is part of the contract between host and plug-in.
class CHANNELAPI_EXPORT CChannel
{
public:
    virtual ~CChannel();

    // Ends the connection. May block for some seconds (modem guard times).
    virtual void disconnectFromAbonent() = 0;

    // Whether the connection still exists.
    virtual bool isConnected() = 0;

    // Queues data for sending. Offer no more than idealBlockSize() bytes.
    virtual void write(const QByteArray& data) = 0;

    // Returns at most maxSize received bytes, and does a round of the channel's own
    // work (receiving, confirming, sending, repeating): call it regularly, from a
    // timer, even when nothing is expected.
    virtual QByteArray read(int maxSize) = 0;

    // How many bytes to write at most now; 0 means write nothing now.
    virtual int idealBlockSize() = 0;

    // The channel type number; set by the implementation's constructor.
    int type;
};
