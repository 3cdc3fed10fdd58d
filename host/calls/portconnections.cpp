#include "host/calls/portconnections.h"

#include "plugin/api/comcalltexts.h"

namespace host {

namespace {

// Whether text begins with pattern up to its %1.
bool beginsAs(const QString& text, const QString& pattern)
{
    return text.startsWith(pattern.left(pattern.indexOf(QStringLiteral("%1"))));
}

} // namespace

// The states from dialling to the end of a connection, and the one state in which a signal is on its way.
bool isStateOfCall(const QString& text)
{
    return beginsAs(text, ComCallTexts::calling()) || beginsAs(text, ComCallTexts::carrier()) ||
           beginsAs(text, ComCallTexts::connected()) || beginsAs(text, ComCallTexts::failed());
}

void PortConnections::connected(const QString& abonent, int connectionId)
{
    m_connections[connectionId] = Connection{abonent, QString()};
}

void PortConnections::disconnected(int connectionId)
{
    m_connections.remove(connectionId);
}

QVector<PortConnections::Lost> PortConnections::portState(const QString& port, const QString& text)
{
    if (!isStateOfCall(text))
        return portGone(port);
    for (Connection& connection : m_connections) {
        if (connection.port.isEmpty() && text == ComCallTexts::connected().arg(connection.abonent)) {
            connection.port = port;
            break;
        }
    }
    return {};
}

QVector<PortConnections::Lost> PortConnections::portGone(const QString& port)
{
    QVector<Lost> lost;
    for (auto it = m_connections.begin(); it != m_connections.end();) {
        if (it->port != port) {
            ++it;
            continue;
        }
        lost.append({it->abonent, it.key()});
        it = m_connections.erase(it);
    }
    return lost;
}

} // namespace host
