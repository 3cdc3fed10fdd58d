// Decides whom to call and when: pure rules, with the time handed in.
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
    qint64 outcomeTimeoutMs = 300 * 1000; // a call of which nothing was heard has failed
    qint64 beginTimeoutMs = 30 * 1000; // so has one that no port has begun
};

// Used in one thread.
class CallScheduler
{
public:
    explicit CallScheduler(CallRules rules) : m_rules(std::move(rules)) {}

    // Those for whom messages wait, in the order of their oldest message. Who is not named any
    // more is forgotten, pause and all.
    void setWaiting(const QStringList& abonents);

    // Whom to call now; null when nobody is due.
    [[nodiscard]] std::optional<QString> nextCall(qint64 nowMs);

    void callPlaced(const QString& abonent, qint64 nowMs);

    // A port has begun with the call.
    void callBegun(const QString& abonent);

    // The call's port went down under it, so that nothing was learnt about the abonent: another
    // port may try at once. A second time in a row counts as a failed call.
    void callLost(const QString& abonent, qint64 nowMs);
    void connected(const QString& abonent, int connectionId);
    void notConnected(const QString& abonent, qint64 nowMs);
    void disconnected(const QString& abonent, int connectionId, bool wasUseful, qint64 nowMs);

    // The connection's port went down under it: nothing was learnt about the abonent.
    void connectionLost(int connectionId) { m_connections.remove(connectionId); }

    [[nodiscard]] bool isConnectedTo(const QString& abonent) const;
    [[nodiscard]] bool isCalling(const QString& abonent) const;
    [[nodiscard]] bool hasConnections() const { return !m_connections.isEmpty(); }

    // Until the next call, in milliseconds; 0 when it is due, null when none is planned.
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
