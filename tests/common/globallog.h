// What the file functions have logged.
#pragma once

#include <QDir>
#include <QFile>
#include <QStringList>

#include "tests/support/testroot.h"

namespace testsupport {

// The stamped lines of all log files of level 0, without the time.
inline QStringList logLines()
{
    QStringList lines;
    const QDir directory(installRoot() + QStringLiteral("/data/0/log"));
    for (const QString& name : directory.entryList({QStringLiteral("*.log")}, QDir::Files, QDir::Name)) {
        QFile file(directory.absoluteFilePath(name));
        if (!file.open(QIODevice::ReadOnly))
            continue;
        for (const QString& line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'))) {
            if (line.mid(2, 1) == QLatin1String(":") && line.mid(8, 1) == QLatin1String("."))
                lines.append(line.mid(13));
        }
    }
    return lines;
}

// The texts logged by the main thread under the label "Global".
inline QStringList globalLog()
{
    const QString label = QStringLiteral("Global").rightJustified(25) + QStringLiteral("    ");
    QStringList texts;
    for (const QString& line : logLines()) {
        if (line.startsWith(label))
            texts.append(line.mid(label.length()));
    }
    return texts;
}

} // namespace testsupport
