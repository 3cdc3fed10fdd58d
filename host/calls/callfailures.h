// How the last call to each abonent ended, worked out from what a plug-in tells.
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

namespace host {

// A plug-in's signal names the abonent who could not be reached, but gives no reason. The reason is in
// the journal record that the calling port wrote just before. With several ports the last record may be
// another port's, so the records are also used to find out which port calls whom. If a port goes down
// while it dials, there is no signal at all: only the port's state text shows that it does something
// else now.
class CallFailures
{
public:
    // A call is asked for; the reason of the one before is forgotten.
    void callPlaced(const QString& abonent);

    // A record of the plug-in. source: the port, or the channel itself. Returns the abonents whose call
    // begins with it.
    QStringList journalRecord(const QString& source, const QString& text);

    // A port's state text has changed, or the port has left the host's table. Returns the abonents whose
    // call has ended by that without a signal. (A signal that was sent before must have been passed on
    // to this object before.)
    [[nodiscard]] QStringList portState(const QString& port, const QString& text);
    [[nodiscard]] QStringList portGone(const QString& port);

    // The call did not lead to a connection.
    void notConnected(const QString& abonent);

    // The connection with an abonent is over; the reason that its session gave is kept.
    void disconnected(const QString& abonent);

    // A session with an abonent ended, who was called or has called and proved who it is. reason: empty
    // when it ended well.
    void sessionEnded(const QString& abonent, const QString& reason);

    // Empty when it is not known.
    [[nodiscard]] QString reason(const QString& abonent) const;

private:
    struct Call
    {
        QString abonent; // the name that the plug-in was asked to call
        QString source; // who calls; empty until it is known
        QString reason;
        bool isOver = false;
    };

    QStringList cutOff(const QString& port);

    QHash<QString, Call> m_calls; // by the abonent's key
    QHash<QString, QString> m_lastRecord; // by source
};

} // namespace host
