#include "host/program/setupcommand.h"

#include "common/global.h"
#include "host/installation/privacy.h"
#include "host/program/exitstatus.h"

namespace host {

namespace {

QString directories()
{
    return QStringLiteral("%1 and %2").arg(Global::settingsDir().absolutePath(), Global::dataDir().absolutePath());
}

} // namespace

int setUpCommand(const QStringList& arguments, CommandStreams& io)
{
    CommandLine line(
        QStringLiteral("setup"),
        QStringLiteral(
            "Lays a new installation out for you alone, as the first of the other commands does, or also for a group.\n"
            "An installation that exists is not changed."));
    line.parser.addOption(
        {QStringLiteral("group"),
         QStringLiteral(
             "Its members may use the installation and read and change all that is in it, but for the secret key."),
         QStringLiteral("NAME")});
    if (const std::optional<int> status = line.parse(arguments, io, 0, 0))
        return *status;
    const QString group = line.parser.value(QStringLiteral("group"));
    if (line.parser.isSet(QStringLiteral("group")) && group.isEmpty())
        return line.usage(io, QStringLiteral("--group needs a name"));
    bool isNew = false;
    const QString error = setUpInstallation(group, &isNew);
    if (!error.isEmpty())
        return fail(io, error);
    if (isNew) {
        io.out << "made " << directories() << " for you "
               << (group.isEmpty() ? QStringLiteral("alone") : QStringLiteral("and the group ") + group) << Qt::endl;
        return exitDone;
    }
    io.out << directories() << " are laid out already; nothing was changed" << Qt::endl;
    const QStringList troubles = installationTroubles();
    for (const QString& trouble : troubles)
        io.err << "transport-host: " << trouble << Qt::endl;
    return troubles.isEmpty() && group.isEmpty() ? exitDone : exitFailed;
}

} // namespace host
