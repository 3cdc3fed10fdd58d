#include "host/program/identitycommands.h"

#include "host/installation/hostsettings.h"
#include "host/installation/names.h"
#include "host/program/exitstatus.h"

namespace host {

int nameCommand(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(QStringLiteral("name"),
                     QStringLiteral("Shows or sets the name of this installation, as the others know it."));
    line.parser.addPositionalArgument(QStringLiteral("NAME"), QStringLiteral("The new name."),
                                      QStringLiteral("[NAME]"));
    if (const std::optional<int> status = line.parse(arguments, io, 0, 1))
        return *status;
    Identity identity;
    const QStringList values = line.parser.positionalArguments();
    if (!values.isEmpty()) {
        if (!isValidAbonentName(values.first()))
            return line.usage(
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
