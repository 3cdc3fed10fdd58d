#include "host/calls/callscheduler.h"

#include "host/installation/names.h"

namespace host {

void CallScheduler::setWaiting(const QStringList& abonents)
{
    m_waiting = abonents;
    QSet<QString> keys;
    for (const QString& abonent : abonents)
        keys.insert(abonentKey(abonent));
    for (auto it = m_states.begin(); it != m_states.end();) {
        const bool isNeeded = keys.contains(it.key()) || it->isCalling;
        it = isNeeded ? ++it : m_states.erase(it);
    }
}

std::optional<QString> CallScheduler::nextCall(qint64 nowMs)
{
    for (const QString& abonent : qAsConst(m_waiting)) {
        State& state = m_states[abonentKey(abonent)];
        if (state.isCalling &&
            nowMs - state.calledMs >= (state.hasBegun ? m_rules.outcomeTimeoutMs : m_rules.beginTimeoutMs))
            failed(&state, nowMs);
        if (!state.isCalling && !isConnectedTo(abonent) && nowMs >= state.dueMs)
            return abonent;
    }
    return std::nullopt;
}

void CallScheduler::callPlaced(const QString& abonent, qint64 nowMs)
{
    State& state = m_states[abonentKey(abonent)];
    state.isCalling = true;
    state.hasBegun = false;
    state.calledMs = nowMs;
}

void CallScheduler::callBegun(const QString& abonent)
{
    const auto state = m_states.find(abonentKey(abonent));
    if (state != m_states.end())
        state->hasBegun = true;
}

void CallScheduler::callLost(const QString& abonent, qint64 nowMs)
{
    const auto state = m_states.find(abonentKey(abonent));
    if (state == m_states.end() || !state->isCalling)
        return;
    if (state->lostInARow > 0) {
        failed(&*state, nowMs);
        return;
    }
    state->isCalling = false;
    state->lostInARow = 1;
    state->dueMs = nowMs;
}

void CallScheduler::connected(const QString& abonent, int connectionId)
{
    m_connections[connectionId] = abonentKey(abonent);
    const auto state = m_states.find(abonentKey(abonent));
    if (state == m_states.end())
        return;
    state->isCalling = false;
    state->lostInARow = 0;
}

void CallScheduler::failed(State* state, qint64 nowMs)
{
    state->isCalling = false;
    state->lostInARow = 0;
    ++state->failedCalls;
    m_rules.lengthen(&state->timeout);
    state->dueMs = nowMs + state->timeout * m_rules.unitMs;
}

void CallScheduler::notConnected(const QString& abonent, qint64 nowMs)
{
    const auto state = m_states.find(abonentKey(abonent));
    // The call was given up already, or it connected and was counted then.
    if (state != m_states.end() && state->isCalling)
        failed(&*state, nowMs);
}

void CallScheduler::disconnected(const QString& abonent, int connectionId, bool wasUseful, qint64 nowMs)
{
    m_connections.remove(connectionId);
    const auto state = m_states.find(abonentKey(abonent));
    if (state == m_states.end())
        return;
    if (!wasUseful) {
        failed(&*state, nowMs);
        return;
    }
    state->isCalling = false;
    state->failedCalls = 0;
    m_rules.shorten(&state->timeout);
    state->dueMs = nowMs + qMax(0, state->timeout) * m_rules.unitMs;
}

bool CallScheduler::isConnectedTo(const QString& abonent) const
{
    const QString key = abonentKey(abonent);
    for (const QString& connectedKey : m_connections) {
        if (connectedKey == key)
            return true;
    }
    return false;
}

bool CallScheduler::isCalling(const QString& abonent) const
{
    return m_states.value(abonentKey(abonent)).isCalling;
}

std::optional<qint64> CallScheduler::pauseLeftMs(const QString& abonent, qint64 nowMs) const
{
    const auto state = m_states.constFind(abonentKey(abonent));
    if (state == m_states.constEnd() || state->isCalling)
        return std::nullopt;
    return qMax<qint64>(0, state->dueMs - nowMs);
}

int CallScheduler::failedCalls(const QString& abonent) const
{
    return m_states.value(abonentKey(abonent)).failedCalls;
}

} // namespace host
