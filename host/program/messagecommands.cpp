#include "host/program/messagecommands.h"

#include "common/global.h"
#include "host/installation/abonentbook.h"
#include "host/installation/names.h"
#include "host/program/exitstatus.h"
#include "host/program/terminalview.h"
#include "host/store/messagestore.h"

namespace host {

int sendFiles(const CommandLine& given, CommandStreams& io)
{
    QStringList files = given.arguments();
    const QString abonent = files.takeFirst();
    if (!isValidAbonentName(abonent))
        return given.wrongUsage(io, QStringLiteral("'%1' cannot be an abonent's name").arg(displayName(abonent)));
    AbonentRecords records;
    QString error = AbonentBook(Global::abonentsSettingsFilePath()).read(&records);
    if (!error.isEmpty())
        return fail(io, error);
    const int known = records.find(abonent);
    if (known < 0)
        io.err << "transport-host: note: no number is known for '" << displayName(abonent)
               << "' (transport-host abonent add): the files wait until they call" << Qt::endl;
    const StorePaths paths = StorePaths::of(Global::currentSecrecy());
    OutgoingQueue queue(paths.output, paths.tasks);
    int status = exitDone;
    for (const QString& file : qAsConst(files)) {
        QueuedMessage message;
        error = queue.enqueue(known < 0 ? abonent : records.abonents.at(known).name, file, &message);
        if (error.isEmpty())
            io.out << message.key << "  " << displayName(message.fileName) << "  " << sizeText(message.size)
                   << Qt::endl;
        else
            status = fail(io, error);
    }
    return status;
}

int cancelMessages(const CommandLine& given, CommandStreams& io)
{
    const StorePaths paths = StorePaths::of(Global::currentSecrecy());
    OutgoingQueue queue(paths.output, paths.tasks);
    queue.rescan();
    int status = exitDone;
    for (const QString& number : given.arguments()) {
        QString error = QStringLiteral("no message %1 is queued").arg(number);
        for (const QueuedMessage& message : queue.messages()) {
            if (message.key == number)
                error = queue.remove(message);
        }
        if (!error.isEmpty())
            status = fail(io, error);
    }
    return status;
}

} // namespace host
