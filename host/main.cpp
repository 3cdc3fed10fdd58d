// transport-host: exchanges files with other installations over modems.
#include "host/commands.h"
#include "host/names.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    host::useUtf8Names();
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("transport-host"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TRANSPORT_HOST_VERSION));
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");
    return host::runCommand(QCoreApplication::arguments(), out, err);
}
