// The command line of phone-exchange.
#pragma once

#include "sim/exchange/exchange.h"

#include <QString>
#include <QStringList>
#include <QVector>

namespace sim {

struct ProgramOptions
{
    CallSettings exchange;
    QVector<ModemSettings> modems;
    QString linkDir;
    QString tablePath;
    QString controlPath;
    QString readyPath;
    QString statisticsPath;
    bool quiet = false;
    bool showHelp = false;
    bool showVersion = false;

    // arguments: without the program's name. False: *error says what is wrong and what to write.
    bool parse(const QStringList& arguments, QString* error);

    static QString helpText();
};

} // namespace sim
