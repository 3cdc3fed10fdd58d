// transport-host: exchanges files with other installations over modems.
#include "host/installation/names.h"
#include "host/program/commands.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    host::useUtf8Names();
    // If TZ is not set, libc looks at this file's attributes at every conversion to local time, and
    // reading settings causes thousands of those a second.
    if (!qEnvironmentVariableIsSet("TZ"))
        qputenv("TZ", ":/etc/localtime");
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("transport-host"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TRANSPORT_HOST_VERSION));
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");
    return host::runCommand(QCoreApplication::arguments(), out, err);
}
