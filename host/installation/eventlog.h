// Machine-readable progress: a file with one JSON object a line.
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
    // An error text, empty on success. The file is appended to. A link in its place is followed,
    // being the choice of whoever names it, unless another user has made it. A file with a second
    // name elsewhere is not written.
    QString open(const QString& path);
    void write(const QString& event, QJsonObject fields);

private:
    QFile m_file;
};

} // namespace host
