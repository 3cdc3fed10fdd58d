// Which connection stands on which port, put together from what a plug-in tells.
#pragma once

#include <QHash>
#include <QString>
#include <QVector>

namespace host {

// Whether a port with this state text has a call under way or connected, or a signal about one.
[[nodiscard]] bool isStateOfCall(const QString& text);

// A port whose worker is cut off in a session brings no signal about the end of its connection;
// only its state text shows that it does something else now, or its row goes. Signals of one
// port and its states are told here in their order.
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

    // A port's state text has changed, or the port has left the host's table. Answers the
    // connections that are over by it without a signal.
    [[nodiscard]] QVector<Lost> portState(const QString& port, const QString& text);
    [[nodiscard]] QVector<Lost> portGone(const QString& port);

private:
    struct Connection
    {
        QString abonent;
        QString port; // empty until its state has told
    };

    QHash<int, Connection> m_connections; // by their identifiers
};

} // namespace host
