#include "host/program/statuscommand.h"

#include "common/global.h"
#include "host/hoststate.h"
#include "host/installation/abonentbook.h"
#include "host/installation/names.h"
#include "host/program/exitstatus.h"
#include "host/program/statusreport.h"
#include "host/transporthost.h"

#include <QJsonDocument>

namespace host {

namespace {

// What cannot be read is reported; the rest is shown all the same.
Status gather()
{
    Status status;
    const auto note = [&status](const QString& error) {
        if (!error.isEmpty())
            status.troubles.append(error);
        return error.isEmpty();
    };
    Identity identity;
    if (note(loadIdentity(&identity)))
        status.identity = identity;
    note(loadComSettings(&status.settings));
    AbonentRecords abonents;
    note(AbonentBook(Global::abonentsSettingsFilePath()).read(&abonents));
    status.running = readHostState(TransportHost::stateFilePath());
    const StorePaths paths = StorePaths::of(Global::currentSecrecy());
    OutgoingQueue queue(paths.output, paths.tasks);
    for (const QString& trouble : queue.rescan())
        note(trouble);
    status.queue = queue.messages();
    const Inbox inbox(paths.input, paths.incomplete, paths.receivedList, limitsOf(status.running));
    status.inbox = inbox.messages();
    status.usage = inbox.usage();
    return status;
}

} // namespace

int showStatus(const CommandLine& given, CommandStreams& io)
{
    const Status status = gather();
    for (const QString& trouble : status.troubles)
        (void)fail(io, trouble);
    if (given.isSet("json"))
        io.out << escapedJson(QString::fromUtf8(QJsonDocument(statusJson(status)).toJson(QJsonDocument::Compact)))
               << Qt::endl;
    else
        printStatus(status, io.out);
    return status.troubles.isEmpty() ? exitDone : exitFailed;
}

} // namespace host
