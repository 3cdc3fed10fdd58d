// Decides whom to call and when, by rules alone: the time is handed in.
#pragma once

#include <QHash>
#include <QSet>
#include <QString>
#include <QStringList>

#include <functional>
#include <optional>

namespace host {

struct CallRules
{
    // The plug-in's rules for the pause before the next call, in units.
    std::function<void(int*)> lengthen;
    std::function<void(int*)> shorten;
    qint64 unitMs = 1000;
    qint64 outcomeTimeoutMs = 300 * 1000; // a call about which nothing was heard for so long has failed
    qint64 beginTimeoutMs = 30 * 1000; // a call that no port has begun within this time has failed
};

// Used in one thread.
class CallScheduler
{
public:
    explicit CallScheduler(CallRules rules) : m_rules(std::move(rules)) {}

    // The abonents for whom messages wait, in the order of their oldest message. An abonent that is not
    // in the list any more is forgotten, also its pause.
    void setWaiting(const QStringList& abonents);

    // Whom to call now; null when nobody is due.
    [[nodiscard]] std::optional<QString> nextCall(qint64 nowMs);

    void callPlaced(const QString& abonent, qint64 nowMs);

    // A port has begun with the call.
    void callBegun(const QString& abonent);

    // The port went down during the call, which says nothing about the abonent: another port may try at
    // once. If it happens twice in a row, it counts as a failed call.
    void callLost(const QString& abonent, qint64 nowMs);
    void connected(const QString& abonent, int connectionId);
    void notConnected(const QString& abonent, qint64 nowMs);
    void disconnected(const QString& abonent, int connectionId, bool wasUseful, qint64 nowMs);

    // The port went down during the connection, which says nothing about the abonent.
    void connectionLost(int connectionId) { m_connections.remove(connectionId); }

    [[nodiscard]] bool isConnectedTo(const QString& abonent) const;
    [[nodiscard]] bool isCalling(const QString& abonent) const;
    [[nodiscard]] bool hasConnections() const { return !m_connections.isEmpty(); }

    // The time until the next call, in milliseconds; 0 when it is due, null when none is planned.
    [[nodiscard]] std::optional<qint64> pauseLeftMs(const QString& abonent, qint64 nowMs) const;
    [[nodiscard]] int failedCalls(const QString& abonent) const;

private:
    struct State
    {
        int timeout = 0; // in units
        qint64 dueMs = 0;
        bool isCalling = false;
        bool hasBegun = false;
        qint64 calledMs = 0;
        int lostInARow = 0;
        int failedCalls = 0;
    };

    void failed(State* state, qint64 nowMs);

    const CallRules m_rules;
    QStringList m_waiting;
    QHash<QString, State> m_states; // by the abonent's key
    QHash<int, QString> m_connections; // keys by connection
};

} // namespace host
