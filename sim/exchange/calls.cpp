#include "sim/exchange/calls.h"

#include "sim/line/moments.h"

#include <algorithm>

namespace sim {

struct Calls::Call
{
    enum Phase
    {
        Dialling,
        Ringing,
        Training,
        Connected,
        Ending, // one side has hung up, its last bytes are still under way
        Ended
    };

    // The way that still carries bytes while the call ends.
    LineDirection& lastDirection() const { return caller ? line->backward : line->forward; }
    void updateNoise() const;
    qint64 nextEventNs() const;

    Phase phase = Dialling;
    CallParty* caller = nullptr; // not owned; null: nobody, or has hung up
    CallParty* called = nullptr; // not owned; likewise
    qint64 phaseEndNs = 0; // of dialling, ringing, training and ending
    qint64 nextRingNs = 0;
    qint64 ringEndNs = -1;
    int ringsLeft = -1; // -1: until it is answered
    bool fromNobody = false;
    bool noDialTone = false;
    qint64 beganNs = 0;
    qint64 connectedAtNs = 0;
    std::unique_ptr<Line> line;
    CallStatistics statistics;
};

void Calls::Call::updateNoise() const
{
    if (line && caller && called)
        line->setNoisy(caller->isNoisy() && called->isNoisy());
}

qint64 Calls::Call::nextEventNs() const
{
    switch (phase) {
    case Dialling:
    case Training: return phaseEndNs;
    case Ringing: return earlier(earlier(nextRingNs, ringEndNs), phaseEndNs);
    case Connected: {
        qint64 next = line->dropNs();
        for (const LineDirection* direction : {&line->forward, &line->backward}) {
            next = earlier(next, direction->nextDeliveryNs());
            if (!direction->isIdle())
                next = earlier(next, direction->nextRoomNs());
        }
        return next;
    }
    case Ending: return earlier(phaseEndNs, lastDirection().nextDeliveryNs());
    case Ended: return -1;
    }
    return -1;
}

namespace {

void takeFrom(CallParty& sender, LineDirection& direction, qint64 nowNs)
{
    if (!sender.isInDataMode()) {
        direction.rest();
        sender.setPace(0); // commands are taken at once
        return;
    }
    sender.setPace(direction.rate() / bitsPerByte);
    if (direction.isIdle() && sender.hasData())
        direction.wake(nowNs);
    const qint64 room = direction.room(nowNs);
    if (room > 0) {
        const QByteArray bytes = sender.takeData(room, nowNs);
        direction.carry(bytes, sender.waitingBytes() > 0, nowNs);
    }
}

// mostBytes: see LineDirection::deliver().
void deliverTo(CallParty& receiver, LineDirection& direction, qint64 mostBytes, qint64 nowNs)
{
    const QByteArray bytes = direction.deliver(nowNs, mostBytes);
    if (!bytes.isEmpty())
        direction.countLost(receiver.isInDataMode() ? receiver.deliver(bytes) : bytes.size());
}

} // namespace

Calls::Calls(CallsHost* host, const CallSettings& settings) : m_host(host), m_settings(settings), m_line(settings.line)
{
}

Calls::~Calls() = default;

void Calls::dial(CallParty& caller, const QString& number, qint64 pauseNs, qint64 nowNs)
{
    auto call = std::make_unique<Call>();
    // Whoever goes off hook while it rings hears no dial tone, and ends the other's call.
    if (Call* ringing = callRinging(caller)) {
        fail(*ringing, CallFailure::NoCarrier, QStringLiteral("%1 dialled instead of answering").arg(caller.name()),
             nowNs);
        call->noDialTone = true;
    }
    call->caller = &caller;
    call->beganNs = nowNs;
    call->phaseEndNs = nowNs + pauseNs;
    call->statistics.call = ++m_dialledCount;
    call->statistics.caller = caller.index();
    call->statistics.number = number;
    call->statistics.startedNs = nowNs;
    call->statistics.line = m_line;
    m_calls.push_back(std::move(call));
}

void Calls::answer(CallParty& called, qint64 nowNs)
{
    Call* call = callRinging(called);
    if (!call) {
        called.callFailed(CallFailure::NoCarrier);
        return;
    }
    called.ringingStopped();
    call->phase = Call::Training;
    call->phaseEndNs =
        nowNs + (call->fromNobody ? called.carrierWaitSeconds() * nsPerSecond : m_settings.trainingMs * nsPerMs);
}

void Calls::hangUp(CallParty& party, qint64 nowNs)
{
    // A party that is only rung has nothing to hang up.
    Call* call = callOf(party);
    if (!call)
        return;
    const QString why = QStringLiteral("%1 hung up").arg(party.name());
    (call->caller == &party ? call->caller : call->called) = nullptr;
    party.setPace(0);
    switch (call->phase) {
    case Call::Dialling:
    case Call::Ringing:
    case Call::Training: fail(*call, CallFailure::NoCarrier, why, nowNs); return;
    case Call::Connected:
        // The other side hears of it when the last bytes under way have come out.
        call->phase = Call::Ending;
        call->statistics.end = why;
        call->statistics.connectedNs = nowNs - call->connectedAtNs;
        call->phaseEndNs = nowNs + call->line->settings().delayMs * nsPerMs;
        return;
    case Call::Ending: end(*call, call->statistics.end, nowNs); return;
    case Call::Ended: return;
    }
}

bool Calls::ringFromNobody(CallParty& called, int times, qint64 nowNs)
{
    if (callOf(called) || callRinging(called))
        return false;
    auto call = std::make_unique<Call>();
    call->phase = Call::Ringing;
    call->called = &called;
    call->fromNobody = true;
    call->ringsLeft = times;
    call->nextRingNs = nowNs;
    call->phaseEndNs = nowNs + m_settings.noAnswerAfterMs * nsPerMs;
    m_calls.push_back(std::move(call));
    return true;
}

bool Calls::dropCarrier(const CallParty& party, const QString& why, qint64 nowNs)
{
    Call* call = callOf(party);
    if (!call || call->phase != Call::Connected)
        return false;
    loseCarrier(*call, why, nowNs);
    return true;
}

void Calls::endAll(const QString& why, qint64 nowNs)
{
    for (const CallPtr& call : m_calls) {
        if (call->phase == Call::Ended)
            continue;
        if (call->line)
            loseCarrier(*call, why, nowNs);
        else
            fail(*call, CallFailure::NoCarrier, why, nowNs);
    }
    m_calls.clear();
}

void Calls::advance(qint64 nowNs)
{
    for (const CallPtr& call : m_calls)
        advanceCall(*call, nowNs);
    m_calls.erase(
        std::remove_if(m_calls.begin(), m_calls.end(), [](const CallPtr& call) { return call->phase == Call::Ended; }),
        m_calls.end());
}

qint64 Calls::nextEventNs() const
{
    qint64 next = -1;
    for (const CallPtr& call : m_calls)
        next = earlier(next, call->nextEventNs());
    return next;
}

bool Calls::isPaced(const CallParty& party) const
{
    const Call* call = party.isInDataMode() ? callOf(party) : nullptr;
    if (!call || !call->line)
        return false;
    if (call->phase != Call::Connected) // nobody listens any more
        return true;
    return !(call->caller == &party ? call->line->forward : call->line->backward).isIdle();
}

void Calls::updateNoise()
{
    for (const CallPtr& call : m_calls)
        call->updateNoise();
}

bool Calls::changeLine(const QString& text, QString* error)
{
    if (!m_line.change(text, error))
        return false;
    m_droppedCount = 0;
    return true;
}

int Calls::activeCount() const
{
    return static_cast<int>(std::count_if(m_calls.cbegin(), m_calls.cend(),
                                          [](const CallPtr& call) { return call->phase != Call::Ended; }));
}

Calls::Call* Calls::callOf(const CallParty& party) const
{
    for (const CallPtr& call : m_calls) {
        if (call->phase != Call::Ended &&
            (call->caller == &party || (call->called == &party && call->phase > Call::Ringing)))
            return call.get();
    }
    return nullptr;
}

Calls::Call* Calls::callRinging(const CallParty& party) const
{
    for (const CallPtr& call : m_calls) {
        if (call->phase == Call::Ringing && call->called == &party)
            return call.get();
    }
    return nullptr;
}

void Calls::place(Call& call, qint64 nowNs)
{
    CallParty& caller = *call.caller;
    if (call.noDialTone || !caller.hasDialTone()) {
        fail(call, CallFailure::NoDialTone, QStringLiteral("no dial tone"), nowNs);
        return;
    }
    CallParty* called = m_host->partyAt(call.statistics.number);
    if (!called) {
        fail(call, CallFailure::NoCarrier, QStringLiteral("nobody has that number"), nowNs);
        return;
    }
    call.statistics.called = called->index();
    if (called->isBusy() || callOf(*called) || callRinging(*called)) {
        fail(call, CallFailure::Busy, QStringLiteral("busy"), nowNs);
        return;
    }
    call.called = called;
    call.phase = Call::Ringing;
    call.nextRingNs = nowNs;
    const int waitMs = std::min(caller.carrierWaitSeconds() * 1000, m_settings.noAnswerAfterMs);
    call.phaseEndNs = nowNs + waitMs * nsPerMs;
    m_host->tell(caller.index(), QStringLiteral("calls %1").arg(called->name()));
}

void Calls::connect(Call& call, qint64 nowNs)
{
    if (call.fromNobody) {
        fail(call, CallFailure::NoCarrier, QStringLiteral("nobody called"), nowNs);
        return;
    }
    const LineSettings& line = call.statistics.line;
    const bool mayDrop = line.dropTimes == 0 || m_droppedCount < line.dropTimes;
    call.line = std::make_unique<Line>(line, call.statistics.call, mayDrop, nowNs);
    call.phase = Call::Connected;
    call.connectedAtNs = nowNs;
    call.statistics.connected = true;
    call.updateNoise();
    m_host->tell(0, QStringLiteral("call %1: %2 and %3 are connected")
                        .arg(call.statistics.call)
                        .arg(call.caller->name(), call.called->name()));
    // Each is told the speed at which it receives.
    call.called->connected(line.rateForward, nowNs);
    call.caller->connected(line.rateBackward, nowNs);
}

// Ends a call that has not been connected.
void Calls::fail(Call& call, CallFailure failure, const QString& why, qint64 nowNs)
{
    CallParty* caller = call.caller;
    CallParty* called = call.called;
    const bool wasRinging = call.phase == Call::Ringing;
    end(call, why, nowNs);
    if (called && wasRinging)
        called->ringingStopped();
    else if (called && called->state() == ModemState::Answering)
        called->callFailed(CallFailure::NoCarrier);
    if (caller && caller->state() == ModemState::Dialling)
        caller->callFailed(failure);
}

// Ends a connection for both sides.
void Calls::loseCarrier(Call& call, const QString& why, qint64 nowNs)
{
    CallParty* caller = call.caller;
    CallParty* called = call.called;
    end(call, why, nowNs);
    for (CallParty* party : {caller, called}) {
        if (!party)
            continue;
        party->setPace(0);
        party->carrierLost();
    }
}

// The call is over. Whoever calls this tells the parties.
void Calls::end(Call& call, const QString& why, qint64 nowNs)
{
    CallStatistics& statistics = call.statistics;
    statistics.end = why;
    statistics.waitedNs = (statistics.connected ? call.connectedAtNs : nowNs) - call.beganNs;
    if (call.phase == Call::Connected)
        statistics.connectedNs = nowNs - call.connectedAtNs;
    if (call.line) {
        statistics.forward = call.line->forward.finalStatistics();
        statistics.backward = call.line->backward.finalStatistics();
    }
    call.phase = Call::Ended;
    call.caller = nullptr;
    call.called = nullptr;
    if (call.fromNobody)
        return;
    m_ended.append(statistics);
    m_host->tell(0, QStringLiteral("call %1 ended: %2").arg(statistics.call).arg(why));
}

void Calls::advanceCall(Call& call, qint64 nowNs)
{
    switch (call.phase) {
    case Call::Dialling:
        if (nowNs >= call.phaseEndNs)
            place(call, nowNs);
        if (call.phase == Call::Ringing)
            advanceRinging(call, nowNs);
        return;
    case Call::Ringing: advanceRinging(call, nowNs); return;
    case Call::Training:
        if (nowNs >= call.phaseEndNs)
            connect(call, nowNs);
        return;
    case Call::Connected: advanceConnected(call, nowNs); return;
    case Call::Ending: advanceEnding(call, nowNs); return;
    case Call::Ended: return;
    }
}

void Calls::advanceRinging(Call& call, qint64 nowNs)
{
    CallParty& called = *call.called;
    if (call.ringEndNs >= 0 && nowNs >= call.ringEndNs) {
        called.ringPauses();
        call.ringEndNs = -1;
        if (call.ringsLeft == 0) {
            fail(call, CallFailure::NoAnswer, QStringLiteral("no answer"), nowNs);
            return;
        }
    }
    if (nowNs >= call.phaseEndNs) {
        fail(call, CallFailure::NoAnswer, QStringLiteral("no answer"), nowNs);
        return;
    }
    if (nowNs < call.nextRingNs || call.ringsLeft == 0)
        return;
    call.nextRingNs = nowNs + m_settings.ringIntervalMs * nsPerMs;
    call.ringEndNs = nowNs + m_settings.ringLengthMs * nsPerMs;
    if (call.ringsLeft > 0)
        --call.ringsLeft;
    called.ring(nowNs);
}

void Calls::advanceConnected(Call& call, qint64 nowNs)
{
    Line& line = *call.line;
    takeFrom(*call.caller, line.forward, nowNs);
    deliverTo(*call.called, line.forward, line.bytesBeforeDrop(), nowNs);
    takeFrom(*call.called, line.backward, nowNs);
    deliverTo(*call.caller, line.backward, line.bytesBeforeDrop(), nowNs);
    if (line.hasDropped(nowNs)) {
        ++m_droppedCount;
        loseCarrier(call, QStringLiteral("the line dropped carrier"), nowNs);
    }
}

void Calls::advanceEnding(Call& call, qint64 nowNs)
{
    LineDirection& direction = call.lastDirection();
    deliverTo(*(call.caller ? call.caller : call.called), direction, call.line->bytesBeforeDrop(), nowNs);
    if (nowNs >= call.phaseEndNs && direction.nextDeliveryNs() < 0)
        loseCarrier(call, call.statistics.end, nowNs);
}

} // namespace sim
