// Why the last call to each abonent failed, put together from what a plug-in tells.
#pragma once

#include <QHash>
#include <QString>

namespace host {

// A plug-in's signal names the abonent who could not be reached, but no reason; the reason
// stands in the journal record that the calling port wrote just before. With several ports
// the last record of all may be another port's: which port called whom is taken from the
// records as well.
class CallFailures
{
public:
    // A call is asked for; the reason of the one before is forgotten.
    void callPlaced(const QString& abonent);

    // A record of the plug-in. source: the port, or the channel itself.
    void journalRecord(const QString& source, const QString& text);

    // No connection came about.
    void notConnected(const QString& abonent);

    // A session ended on a port. peer: as it called itself, empty when it said no name;
    // reason: empty when it ended well.
    void sessionEnded(const QString& port, const QString& peer, const QString& reason);

    // Empty when it is not known.
    [[nodiscard]] QString reason(const QString& abonent) const;

private:
    struct Call
    {
        QString abonent; // as the plug-in was asked to call it
        QString source;  // who calls; empty until it is known
        QString reason;
    };

    QHash<QString, Call> m_calls;         // by the abonent's key
    QHash<QString, QString> m_lastRecord; // by source
};

} // namespace host
