// Where the parts of a running host tell what happens.
#pragma once

#include <QJsonObject>
#include <QString>

namespace host {

// Used in the host's thread.
class RunRecords
{
public:
    // For programs: a line of the event file, where one was asked for.
    virtual void event(const QString& name, const QJsonObject& fields) = 0;

    // For people: a line of the journal.
    virtual void journal(bool isError, const QString& text) = 0;

protected:
    ~RunRecords() = default;
};

} // namespace host
