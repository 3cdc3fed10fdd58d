#include "host/store/messagestore.h"

#include "common/global.h"

namespace host {

StorePaths StorePaths::of(int secrecyLevel)
{
    StorePaths paths;
    paths.input = Global::inputMessagesDir(secrecyLevel);
    paths.incomplete = Global::incompleteMessagesDir(secrecyLevel);
    paths.output = Global::outputMessagesDir(secrecyLevel);
    paths.tasks = Global::tasksToTransportDir(secrecyLevel);
    paths.receivedList = Global::messagesDir(secrecyLevel).absoluteFilePath(QStringLiteral("received.list"));
    return paths;
}

MessageStore::MessageStore(const StorePaths& paths, const InboxLimits& limits)
    : m_queue(paths.output, paths.tasks), m_inbox(paths.input, paths.incomplete, paths.receivedList, limits)
{
}

QStringList MessageStore::open(QString* error)
{
    QStringList notes = m_inbox.open(error);
    if (!error->isEmpty())
        return notes;
    notes += m_queue.cleanUp();
    return notes + m_queue.rescan();
}

} // namespace host
