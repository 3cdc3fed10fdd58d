// transport-tune: settings of the link for a given line.
#include "tools/tunecommand.h"

#include <QCoreApplication>

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    QCoreApplication::setApplicationName(QStringLiteral("transport-tune"));
    QCoreApplication::setApplicationVersion(QStringLiteral(TRANSPORT_TUNE_VERSION));
    QTextStream out(stdout);
    QTextStream err(stderr);
    out.setCodec("UTF-8");
    err.setCodec("UTF-8");
    return tune::runTune(QCoreApplication::arguments(), out, err);
}
