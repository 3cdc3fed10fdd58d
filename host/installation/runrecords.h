// Where the units of a running host report what happens.
#pragma once

#include <QJsonObject>
#include <QString>

namespace host {

// Used in the host's thread.
class RunRecords
{
public:
    // For programs: a line in the event file, if the user wants one.
    virtual void event(const QString& name, const QJsonObject& fields) = 0;

    // For people: a line in the journal.
    virtual void journal(bool isError, const QString& text) = 0;

protected:
    ~RunRecords() = default;
};

} // namespace host
