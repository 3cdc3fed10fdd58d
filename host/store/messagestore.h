// The messages of an installation on its disk: the queue and the inbox.
#pragma once

#include "host/store/inbox.h"
#include "host/store/outgoingqueue.h"

#include <QString>

namespace host {

// The paths in the data tree of a secrecy level.
struct StorePaths
{
    QDir input;
    QDir incomplete;
    QDir output;
    QDir tasks;
    QString receivedList;

    [[nodiscard]] static StorePaths of(int secrecyLevel);
};

// Any thread may call any operation.
class MessageStore
{
public:
    explicit MessageStore(const StorePaths& paths, const InboxLimits& limits = {});

    // Call it once, in the one program that serves the installation. Returns texts for the journal;
    // *error is set when the store cannot be used.
    QStringList open(QString* error);

    OutgoingQueue& queue() { return m_queue; }
    Inbox& inbox() { return m_inbox; }

    [[nodiscard]] SessionStore forSessions() { return {&m_queue, &m_inbox}; }

private:
    OutgoingQueue m_queue;
    Inbox m_inbox;
};

} // namespace host
