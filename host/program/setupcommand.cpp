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

int setUp(const CommandLine& given, CommandStreams& io)
{
    const QString group = given.value("group");
    if (given.isSet("group") && group.isEmpty())
        return given.wrongUsage(io, QStringLiteral("--group needs a name"));
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
