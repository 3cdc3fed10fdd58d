// Which connection is on which port, worked out from what a plug-in tells.
#pragma once

#include <QHash>
#include <QString>
#include <QVector>

namespace host {

// Whether a port with this state text has a call or a connection, or a signal about one is on its way.
[[nodiscard]] bool isStateOfCall(const QString& text);

// If the worker of a port is terminated during a session, there is no signal about the end of its
// connection. Only the port's state text shows that it does something else now, or the port leaves the
// table. Pass on the signals and states of one port in their order.
class PortConnections
{
public:
    void connected(const QString& abonent, int connectionId);
    void disconnected(int connectionId);

    struct Lost
    {
        QString abonent;
        int connectionId = 0;
    };

    // A port's state text has changed, or the port has left the host's table. Returns the connections
    // that have ended by that without a signal.
    [[nodiscard]] QVector<Lost> portState(const QString& port, const QString& text);
    [[nodiscard]] QVector<Lost> portGone(const QString& port);

private:
    struct Connection
    {
        QString abonent;
        QString port; // empty until its state text shows it
    };

    QHash<int, Connection> m_connections; // by their identifiers
};

} // namespace host
