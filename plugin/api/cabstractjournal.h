// The host's journal of events, for its users.
#pragma once

#include "plugin/api/channelapi_export.h"

#include <QString>

class CHANNELAPI_EXPORT CAbstractJournal
{
public:
    virtual ~CAbstractJournal();

    // kind: JournalKind::event or JournalKind::error (journalkind.h). source: the channel's display name for
    // records of the server, the serial port's name for records of a port. Called from
    // the server's thread and from every port worker's thread.
    virtual void addRecord(int kind, const QString& source, const QString& text) = 0;
};
