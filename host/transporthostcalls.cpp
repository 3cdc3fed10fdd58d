// The running host: whom it calls, and why messages wait.
#include "host/installation/comrecords.h"
#include "host/installation/names.h"
#include "host/transporthost.h"

#include <algorithm>

namespace host {

namespace {

// The channel reports nothing about a call whose number it cannot read, so such a call is not placed.
bool canBeCalled(const Abonent& abonent)
{
    AbonentComSettings addressing;
    return !abonent.isBlocked && readRecord(abonent.channelData, &addressing).isEmpty() &&
           !addressing.phoneNumber.isEmpty();
}

} // namespace

void TransportHost::pollQueue()
{
    m_lastQueuePollMs = m_clock.elapsed();
    reloadSettings();
    for (const QString& trouble : m_store->queue().rescan())
        journal(true, trouble);
    QStringList waiting;
    for (const QString& abonent : m_store->queue().waitingAbonents()) {
        const int known = m_abonents.find(abonent);
        if (known >= 0 && canBeCalled(m_abonents.abonents.at(known)))
            waiting.append(m_abonents.abonents.at(known).name);
    }
    m_calls->setWaiting(waiting);
    updateWaitReasons();
}

void TransportHost::onPeerNews(const PeerNews& news)
{
    const QString abonent = displayName(news.abonent);
    if (news.kind == PeerNews::Kind::Pinned) {
        m_events.write(QStringLiteral("keyPinned"),
                       {{QStringLiteral("peer"), news.abonent}, {QStringLiteral("fingerprint"), news.answered}});
        journal(false, QStringLiteral("'%1' answered for the first time: its key %2 is pinned; compare it with what "
                                      "\"transport-host key\" shows there")
                           .arg(abonent, news.answered));
        return;
    }
    m_events.write(QStringLiteral("keyChanged"), {{QStringLiteral("peer"), news.abonent},
                                                  {QStringLiteral("pinned"), news.pinned},
                                                  {QStringLiteral("answered"), news.answered}});
    journal(true, QStringLiteral("THE KEY OF '%1' HAS CHANGED: %2 answered, %3 is pinned. Somebody else may have "
                                 "answered; nothing was sent. "
                                 "Ask them; if theirs is new: \"transport-host abonent add %1 --key TEXT\", or "
                                 "\"transport-host abonent forget-key %1\"")
                      .arg(abonent, news.answered, news.pinned));
    updateWaitReasons();
}

bool TransportHost::hasKeyTrouble(const QString& abonent) const
{
    const int known = m_abonents.find(abonent);
    return known >= 0 && m_peers->keyTrouble(m_abonents.abonents.at(known)).has_value();
}

// All waiting messages are for abonents whose changed key somebody has to check first.
bool TransportHost::isWaitingForKeysOnly() const
{
    const QVector<QueuedMessage> messages = m_store->queue().messages();
    return !messages.isEmpty() && std::all_of(messages.cbegin(), messages.cend(), [this](const QueuedMessage& message) {
        return hasKeyTrouble(message.abonent);
    });
}

void TransportHost::placeCalls()
{
    if (!m_server->hasFreeChannel())
        return;
    const std::optional<QString> abonent = m_calls->next(nowMs());
    if (!abonent)
        return;
    const int known = m_abonents.find(*abonent);
    if (known < 0)
        return;
    // One call at a time: the next one after another look at whether a channel is free.
    m_calls->placed(*abonent, nowMs());
    emit connectRequested(m_abonents.abonents.at(known).name, m_abonents.abonents.at(known).channelData);
}

// Null while a call or a session is dealing with the abonent's messages.
std::optional<WaitReason> TransportHost::waitReason(const QString& abonent) const
{
    using Kind = WaitReason::Kind;
    const auto of = [](Kind kind, const QString& text = QString(), int calls = 0) {
        WaitReason reason;
        reason.kind = kind;
        reason.text = text;
        reason.calls = calls;
        return reason;
    };
    const int known = m_abonents.find(abonent);
    if (known < 0)
        return of(Kind::NoNumber);
    if (m_abonents.abonents.at(known).isBlocked)
        return of(Kind::Blocked);
    if (m_calls->isConnectedTo(abonent) || m_calls->isCalling(abonent))
        return std::nullopt;
    if (const std::optional<PeerNews> trouble = m_peers->keyTrouble(m_abonents.abonents.at(known))) {
        WaitReason reason = of(Kind::KeyChanged);
        reason.pinned = trouble->pinned;
        reason.answered = trouble->answered;
        return reason;
    }
    if (!m_options.placeCalls)
        return of(Kind::NoCalls);
    AbonentComSettings addressing;
    const QString damage = readRecord(m_abonents.abonents.at(known).channelData, &addressing);
    if (!damage.isEmpty())
        return of(Kind::NumberDamaged, damage);
    if (addressing.phoneNumber.isEmpty())
        return of(Kind::NoNumber);
    const int failedCalls = m_calls->failedCalls(abonent);
    const QString cause = m_calls->failure(abonent);
    if (failedCalls > 0)
        return of(Kind::CallsFailed, cause, failedCalls);
    if (!cause.isEmpty())
        return of(Kind::BrokenOff, cause);
    return of(m_server->isHardwareOn() ? Kind::NotTried : Kind::NoModem);
}

void TransportHost::updateWaitReasons()
{
    m_store->queue().updateReasons([this](const QString& abonent) { return waitReason(abonent); });
}

// Changed keys are reported whether the run was done or its time ran out.
HostEnd TransportHost::endWithKeys(HostEnd end) const
{
    if (end != HostEnd::Done && end != HostEnd::TimedOut)
        return end;
    for (const QueuedMessage& message : m_store->queue().messages()) {
        if (hasKeyTrouble(message.abonent))
            return HostEnd::KeyChanged;
    }
    return end;
}

} // namespace host
