// A command of transport-host, carried out in this process.
#pragma once

#include "host/program/commands.h"

#include <QStringList>

namespace hosttest {

struct Called
{
    int status = -1;
    QString out;
    QString err;
};

inline Called callCommand(const QStringList& words)
{
    Called called;
    QTextStream out(&called.out);
    QTextStream err(&called.err);
    called.status = host::runCommand(QStringList{QStringLiteral("transport-host")} + words, out, err);
    qInstallMessageHandler(nullptr);
    out.flush();
    err.flush();
    return called;
}

} // namespace hosttest
