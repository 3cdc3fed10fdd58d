#include "host/calls/callfailures.h"

#include "host/calls/portconnections.h"
#include "host/installation/names.h"
#include "plugin/api/comcalltexts.h"

namespace host {

namespace {

// Whether text begins with pattern up to its %2, with first in place of %1.
bool isLike(const QString& text, const QString& pattern, const QString& first)
{
    const int second = pattern.indexOf(QStringLiteral("%2"));
    return second < 0 ? text == pattern.arg(first) : text.startsWith(pattern.left(second).arg(first));
}

// The texts by which the channel says whom it calls, or that it cannot call now.
bool tellsOfCall(const QString& text, const QString& abonent)
{
    return isLike(text, ComCallTexts::calling(), abonent) || isLike(text, ComCallTexts::noFreePort(), abonent);
}

} // namespace

void CallFailures::callPlaced(const QString& abonent)
{
    m_calls[abonentKey(abonent)] = Call{abonent, QString(), QString(), false};
}

QStringList CallFailures::journalRecord(const QString& source, const QString& text)
{
    m_lastRecord[source] = text;
    QStringList begun;
    for (Call& call : m_calls) {
        if (call.isOver || !tellsOfCall(text, call.abonent))
            continue;
        call.source = source;
        begun.append(call.abonent);
    }
    return begun;
}

QStringList CallFailures::portState(const QString& port, const QString& text)
{
    return isStateOfCall(text) ? QStringList() : cutOff(port);
}

QStringList CallFailures::portGone(const QString& port)
{
    const QStringList abonents = cutOff(port);
    m_lastRecord.remove(port);
    return abonents;
}

QStringList CallFailures::cutOff(const QString& port)
{
    QStringList abonents;
    for (Call& call : m_calls) {
        if (call.isOver || call.source != port)
            continue;
        call.isOver = true;
        call.reason = m_lastRecord.value(port);
        abonents.append(call.abonent);
    }
    return abonents;
}

void CallFailures::notConnected(const QString& abonent)
{
    const auto call = m_calls.find(abonentKey(abonent));
    if (call == m_calls.end() || call->isOver)
        return;
    call->isOver = true;
    call->reason = m_lastRecord.value(call->source);
}

void CallFailures::disconnected(const QString& abonent)
{
    const auto call = m_calls.find(abonentKey(abonent));
    if (call != m_calls.end())
        call->isOver = true;
}

void CallFailures::sessionEnded(const QString& abonent, const QString& reason)
{
    const auto call = m_calls.find(abonentKey(abonent));
    if (call != m_calls.end())
        call->reason = reason;
}

QString CallFailures::reason(const QString& abonent) const
{
    return m_calls.value(abonentKey(abonent)).reason;
}

} // namespace host
