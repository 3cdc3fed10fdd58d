#include "host/callfailures.h"

#include "host/names.h"

namespace host {

namespace {

// By which the channel says who is being called, or that nobody can be just now.
bool tellsOfCall(const QString& text, const QString& abonent)
{
    return text.startsWith(QStringLiteral("Вызов '%1' (").arg(abonent)) ||
           text.startsWith(QStringLiteral("Не удалось вызвать абонента '%1'").arg(abonent));
}

} // namespace

void CallFailures::callPlaced(const QString& abonent)
{
    m_calls[abonentKey(abonent)] = Call{abonent, QString(), QString()};
}

void CallFailures::journalRecord(const QString& source, const QString& text)
{
    m_lastRecord[source] = text;
    for (Call& call : m_calls) {
        if (tellsOfCall(text, call.abonent))
            call.source = source;
    }
}

void CallFailures::notConnected(const QString& abonent)
{
    const auto call = m_calls.find(abonentKey(abonent));
    if (call != m_calls.end())
        call->reason = m_lastRecord.value(call->source);
}

void CallFailures::sessionEnded(const QString& port, const QString& peer, const QString& reason)
{
    if (!peer.isEmpty()) {
        const auto call = m_calls.find(abonentKey(peer));
        if (call != m_calls.end())
            call->reason = reason;
        return;
    }
    for (Call& call : m_calls) {
        if (call.source == port)
            call.reason = reason;
    }
}

QString CallFailures::reason(const QString& abonent) const
{
    return m_calls.value(abonentKey(abonent)).reason;
}

} // namespace host
