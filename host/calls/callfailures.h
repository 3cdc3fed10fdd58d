// What became of the last call to each abonent, put together from what a plug-in tells.
#pragma once

#include <QHash>
#include <QString>
#include <QStringList>

namespace host {

// A plug-in's signal names the abonent who could not be reached, but no reason; the reason
// stands in the journal record that the calling port wrote just before. With several ports
// the last record of all may be another port's: which port called whom is taken from the
// records as well. Of a call whose port goes down while it dials there is no signal at all:
// only the port's state text shows that it does something else now.
class CallFailures
{
public:
    // A call is asked for; the reason of the one before is forgotten.
    void callPlaced(const QString& abonent);

    // A record of the plug-in. source: the port, or the channel itself. Answers those whose call
    // has begun by it.
    QStringList journalRecord(const QString& source, const QString& text);

    // A port's state text has changed, or the port has left the host's table. Answers those
    // whose call this ends although no signal told of its outcome; a signal that was sent
    // before has been told here before.
    [[nodiscard]] QStringList portState(const QString& port, const QString& text);
    [[nodiscard]] QStringList portGone(const QString& port);

    // No connection came about.
    void notConnected(const QString& abonent);

    // The connection with an abonent is over; what its session said remains.
    void disconnected(const QString& abonent);

    // A session with an abonent ended: one that was called, or one that called and proved who it
    // is. reason: empty when it ended well.
    void sessionEnded(const QString& abonent, const QString& reason);

    // Empty when it is not known.
    [[nodiscard]] QString reason(const QString& abonent) const;

private:
    struct Call
    {
        QString abonent; // as the plug-in was asked to call it
        QString source; // who calls; empty until it is known
        QString reason;
        bool isOver = false;
    };

    QStringList cutOff(const QString& port);

    QHash<QString, Call> m_calls; // by the abonent's key
    QHash<QString, QString> m_lastRecord; // by source
};

} // namespace host
