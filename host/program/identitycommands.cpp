#include "host/program/identitycommands.h"

#include "host/installation/hostsettings.h"
#include "host/installation/names.h"
#include "host/program/exitstatus.h"

namespace host {

int showOrSetName(const CommandLine& given, CommandStreams& io)
{
    Identity identity;
    const QStringList values = given.arguments();
    if (!values.isEmpty()) {
        if (!isValidAbonentName(values.first()))
            return given.wrongUsage(
                io,
                QStringLiteral(
                    "'%1' cannot be a name: it needs letters or digits, at most %2 bytes, and no control characters")
                    .arg(displayName(values.first()), QString::number(maxAbonentNameBytes)));
        const QString error = saveOwnName(values.first());
        return statusOf(io, error);
    }
    const QString error = loadIdentity(&identity);
    if (!error.isEmpty())
        return fail(io, error);
    if (identity.name.isEmpty())
        return fail(io, QStringLiteral("this installation has no name yet: set it with \"transport-host name NAME\""));
    io.out << identity.name << Qt::endl;
    return exitDone;
}

} // namespace host
