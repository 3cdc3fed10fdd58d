// A text about the build and the machine, for the head of every log file.
#pragma once

#include <QString>
#include <QStringList>

// Each function returns its line (or two), without a line end, even if something fails. Any thread.
// Faults are reported on the Qt warning stream, because the logger itself calls this.
class CSystemInfo
{
public:
    static QString HDDInfo();
    static QString RAMInfo();
    static QString OSInfo();
    static QString envInfo();
    static QString byteOrder();
    static QString uptimeInfo();
    static QString appPathInfo();
    static QString timezoneInfo();
    static QString CPUInfo();
    static QString userGroupsInfo();

    // A header line, the lines above, and an empty line.
    static QString summaryInfo();

    // What the lines are made from; separate, so that a test can give any file.

    // The text behind the first "model name" of a file such as /proc/cpuinfo; empty without one.
    static QString processorModel(const QString& filePath);
    // The groups of a file such as /etc/group in whose list of members user stands.
    static QStringList groupsOf(const QString& user, const QString& filePath);
    // Days, hours, minutes and seconds, from the first that is not zero.
    static QString uptimeText(qint64 seconds);
};
