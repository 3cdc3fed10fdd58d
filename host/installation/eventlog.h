// What happens, for programs: a file with one JSON object per line.
#pragma once

#include <QFile>
#include <QJsonObject>
#include <QString>

namespace host {

// Used in one thread. Each line has "event", "time" (UTC, ISO 8601) and "monotonic", the
// seconds of the machine's steady clock: comparable between the processes of one machine.
class EventLog
{
public:
    // Returns an error text, empty on success. Appends to the file. A link is followed, because the
    // user named it, unless another user has made it. A file that has a second name elsewhere is not
    // written.
    QString open(const QString& path);
    void write(const QString& event, QJsonObject fields);

private:
    QFile m_file;
};

} // namespace host
