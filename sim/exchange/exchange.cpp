#include "sim/exchange/exchange.h"

#include "sim/line/moments.h"

#include <QFile>

#include <algorithm>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>

namespace sim {

namespace {

constexpr qint64 backlogNs = 2 * nsPerMs; // between tries at a program that does not read
constexpr qint64 watchNs = 5 * nsPerMs; // between looks at DTR, of which nothing wakes us

QString noModem(int modem)
{
    return QStringLiteral("there is no modem %1").arg(modem);
}

} // namespace

struct Exchange::Call
{
    enum Phase
    {
        Dialling,
        Ringing,
        Training,
        Connected,
        Ending,
        Ended
    };

    Phase phase = Dialling;
    VirtualModem* caller = nullptr; // not owned; null: nobody, or has hung up
    VirtualModem* called = nullptr; // not owned; likewise
    qint64 phaseEndNs = 0; // of dialling, ringing, training, and the last of a connection
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

Exchange::Exchange(const ExchangeSettings& settings)
    : m_settings(settings), m_originNs(clockNs()), m_line(settings.line),
      m_wakeFd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC))
{
}

Exchange::~Exchange()
{
    stop();
    ::close(m_wakeFd);
}

void Exchange::setObserver(Observer observer)
{
    m_observer = std::move(observer);
}

int Exchange::addModem(const ModemSettings& settings, QString* error)
{
    int index = 0;
    perform([&] {
        ModemSettings wanted = settings;
        wanted.number = normalizedNumber(settings.number);
        if (wanted.number.isEmpty()) {
            *error = QStringLiteral("'%1' is no telephone number: it has no digits").arg(settings.number);
            return;
        }
        for (const auto& modem : m_modems) {
            if (modem->settings.number == wanted.number) {
                *error = QStringLiteral("the number %1 is that of %2 already").arg(wanted.number, modem->name());
                return;
            }
        }
        const int next = static_cast<int>(m_modems.size()) + 1;
        auto made =
            std::make_unique<VirtualModem>(next, wanted, [this](int modem, const QString& text) { tell(modem, text); });
        if (!made->endpoint.isOpen()) {
            *error = made->endpoint.errorString();
            return;
        }
        m_modems.push_back(std::move(made));
        index = next;
    });
    return index;
}

int Exchange::modemCount() const
{
    int count = 0;
    perform([&] { count = static_cast<int>(m_modems.size()); });
    return count;
}

QString Exchange::portPath(int modem) const
{
    return status(modem).portPath;
}

ModemStatus Exchange::status(int modem) const
{
    ModemStatus status;
    perform([&] {
        const VirtualModem* found = find(modem);
        if (!found)
            return;
        status.number = found->settings.number;
        status.portPath = found->endpoint.portPath();
        status.state = found->modem.state();
        status.plugged = found->endpoint.isOpen();
        status.powered = found->isPowered();
        status.modemLines = found->endpoint.modemLines();
        status.programLines = found->endpoint.programLines();
        status.baudRate = found->endpoint.baudRate();
        status.faults = found->faults;
    });
    return status;
}

void Exchange::start()
{
    std::lock_guard<std::mutex> locker(m_mutex);
    if (m_thread.joinable())
        return;
    m_stopping = false;
    m_thread = std::thread([this] { run(); });
    m_worker = m_thread.get_id();
}

void Exchange::stop()
{
    if (!m_thread.joinable())
        return;
    m_stopping = true;
    wakeThread();
    m_thread.join();
}

QString Exchange::dropCarrier(int modem)
{
    return onModem(modem, [this](VirtualModem& found) {
        Call* call = callOf(found);
        if (!call || call->phase != Call::Connected)
            return QStringLiteral("%1 has no connection").arg(found.name());
        loseCarrier(*call, QStringLiteral("carrier dropped by command"));
        return QString();
    });
}

QString Exchange::setSilent(int modem, bool on)
{
    return onModem(modem, [this, on](VirtualModem& found) {
        tell(found.index, on ? QStringLiteral("falls silent") : QStringLiteral("speaks again"));
        found.faults.silent = on;
        return QString();
    });
}

QString Exchange::setPowered(int modem, bool on)
{
    return onModem(modem, [this, on](VirtualModem& found) {
        if (found.isPowered() == on)
            return QString();
        tell(found.index, on ? QStringLiteral("power on") : QStringLiteral("power off"));
        if (!on)
            detach(found);
        found.setPowered(on);
        found.requests.clear();
        return QString();
    });
}

QString Exchange::unplug(int modem)
{
    return onModem(modem, [this](VirtualModem& found) {
        if (!found.endpoint.isOpen())
            return QStringLiteral("%1 is unplugged already").arg(found.name());
        tell(found.index, QStringLiteral("unplugged"));
        detach(found);
        found.unplug();
        found.requests.clear();
        return QString();
    });
}

QString Exchange::plugIn(int modem)
{
    return onModem(modem, [this](VirtualModem& found) {
        if (found.endpoint.isOpen())
            return QStringLiteral("%1 is plugged in already").arg(found.name());
        if (!found.plugIn())
            return found.endpoint.errorString();
        found.requests.clear();
        tell(found.index, QStringLiteral("plugged in as %1").arg(found.endpoint.portPath()));
        return QString();
    });
}

QString Exchange::setBusy(int modem, bool on)
{
    return onModem(modem, [this, on](VirtualModem& found) {
        tell(found.index, on ? QStringLiteral("is busy for callers") : QStringLiteral("is free for callers"));
        found.faults.busy = on;
        return QString();
    });
}

QString Exchange::setDialTone(int modem, bool on)
{
    return onModem(modem, [this, on](VirtualModem& found) {
        tell(found.index, on ? QStringLiteral("has a dial tone") : QStringLiteral("has no dial tone"));
        found.faults.noDialTone = !on;
        return QString();
    });
}

QString Exchange::setAnswering(int modem, bool on)
{
    return onModem(modem, [this, on](VirtualModem& found) {
        tell(found.index, on ? QStringLiteral("is told of calls") : QStringLiteral("is not told of calls"));
        found.faults.noAnswer = !on;
        if (!on)
            found.modem.ringPauses();
        return QString();
    });
}

QString Exchange::setNoise(int modem, bool on)
{
    QString problem;
    perform([&] {
        if (modem != 0 && !find(modem)) {
            problem = noModem(modem);
            return;
        }
        for (const auto& each : m_modems) {
            if (modem == 0 || each->index == modem)
                each->faults.noNoise = !on;
        }
        for (const CallPtr& call : m_calls)
            updateNoise(*call);
        tell(modem, on ? QStringLiteral("noise on") : QStringLiteral("noise off"));
    });
    return problem;
}

QString Exchange::changeLine(const QString& text)
{
    QString problem;
    perform([&] {
        if (!m_line.change(text, &problem))
            return;
        m_droppedCalls = 0;
        tell(0, QStringLiteral("line of later calls: %1").arg(m_line.toString()));
    });
    return problem;
}

QString Exchange::ring(int modem, int times)
{
    return onModem(modem, [this, times](VirtualModem& found) {
        if (callOf(found) || callRinging(found))
            return QStringLiteral("%1 has a call already").arg(found.name());
        const qint64 now = nowNs();
        auto call = std::make_unique<Call>();
        call->phase = Call::Ringing;
        call->called = &found;
        call->fromNobody = true;
        call->ringsLeft = times;
        call->nextRingNs = now;
        call->phaseEndNs = now + m_settings.noAnswerAfterMs * nsPerMs;
        m_calls.push_back(std::move(call));
        return QString();
    });
}

QString Exchange::say(int modem, const QString& text)
{
    return onModem(modem, [this, &text](VirtualModem& found) {
        if (!found.responds())
            return QStringLiteral("%1 cannot say anything now").arg(found.name());
        tell(found.index, QStringLiteral("says %1").arg(text));
        found.deliver("\r\n" + text.toLatin1() + "\r\n");
        return QString();
    });
}

LineSettings Exchange::line() const
{
    LineSettings settings;
    perform([&] { settings = m_line; });
    return settings;
}

QVector<CallStatistics> Exchange::endedCalls() const
{
    QVector<CallStatistics> calls;
    perform([&] { calls = m_endedCalls; });
    return calls;
}

int Exchange::activeCalls() const
{
    int count = 0;
    perform([&] { count = static_cast<int>(m_calls.size()); });
    return count;
}

void Exchange::run()
{
    while (!m_stopping) {
        runTasks();
        const qint64 now = nowNs();
        const qint64 wakeNs = step(now);
        report();
        waitForWork(now, wakeNs);
    }
    endAllCalls();
    report();
    // From here on callers do their tasks themselves.
    std::unique_lock<std::mutex> locker(m_mutex);
    for (Task* task : m_tasks) {
        (*task->work)();
        task->done = true;
    }
    m_tasks.clear();
    m_worker = std::thread::id();
    m_taskDone.notify_all();
}

void Exchange::endAllCalls()
{
    const QString why = QStringLiteral("the exchange stopped");
    for (const CallPtr& call : m_calls) {
        if (call->line)
            loseCarrier(*call, why);
        else if (call->phase != Call::Ended)
            failCall(*call, CallFailure::NoCarrier, why);
    }
    m_calls.clear();
}

// One pass over everything that is due; returns when the next one is.
qint64 Exchange::step(qint64 now)
{
    for (const auto& modem : m_modems)
        stepModem(*modem, now);
    // By index: serving a request may begin a call.
    for (std::size_t i = 0; i < m_calls.size(); ++i)
        stepCall(*m_calls[i], now);
    for (const auto& modem : m_modems)
        serve(*modem, now);
    m_calls.erase(
        std::remove_if(m_calls.begin(), m_calls.end(), [](const CallPtr& call) { return call->phase == Call::Ended; }),
        m_calls.end());

    qint64 wakeNs = now + nsPerSecond;
    for (const auto& modem : m_modems) {
        wakeNs = earlier(wakeNs, modem->modem.nextEventNs());
        if (modem->endpoint.isOpen())
            wakeNs = earlier(wakeNs, now + watchNs);
        if (modem->flush())
            wakeNs = earlier(wakeNs, now + backlogNs);
    }
    for (const CallPtr& call : m_calls)
        wakeNs = earlier(wakeNs, nextCallEventNs(*call));
    return std::max(wakeNs, now + sliceNs);
}

void Exchange::runTasks()
{
    std::unique_lock<std::mutex> locker(m_mutex);
    while (!m_tasks.empty()) {
        Task* task = m_tasks.front();
        m_tasks.pop_front();
        locker.unlock();
        (*task->work)();
        locker.lock();
        task->done = true;
        m_taskDone.notify_all();
    }
}

// Runs task in the exchange's thread and waits for it, so that ports and calls belong to
// one thread; at once when that thread asks itself, or none runs.
void Exchange::perform(const std::function<void()>& task) const
{
    std::unique_lock<std::mutex> locker(m_mutex);
    if (m_worker == std::this_thread::get_id()) {
        locker.unlock();
        task();
        return;
    }
    if (m_worker == std::thread::id()) {
        task();
        return;
    }
    Task entry{&task, false};
    m_tasks.push_back(&entry);
    wakeThread();
    m_taskDone.wait(locker, [&entry] { return entry.done; });
}

void Exchange::wakeThread() const
{
    const quint64 one = 1;
    // Only a full counter refuses it, and then the thread wakes anyway.
    const ssize_t written = ::write(m_wakeFd, &one, sizeof(one));
    Q_UNUSED(written)
}

// Tells the observer outside of everything, so that it may use the exchange.
void Exchange::report()
{
    std::vector<ExchangeEvent> events;
    events.swap(m_events);
    for (const ExchangeEvent& event : events) {
        if (m_observer)
            m_observer(event);
    }
}

void Exchange::waitForWork(qint64 now, qint64 wakeNs)
{
    m_polled.clear();
    m_polled.push_back({m_wakeFd, POLLIN, 0});
    for (const auto& modem : m_modems) {
        // What a modem's line has no time to carry yet must not wake us.
        if (modem->endpoint.isOpen() && !isPaced(*modem))
            m_polled.push_back({modem->endpoint.masterFd(), POLLIN, 0});
    }
    const qint64 waitNs = std::max<qint64>(wakeNs - std::max(nowNs(), now), 0);
    const timespec timeout = toTimespec(waitNs);
    if (ppoll(m_polled.data(), m_polled.size(), &timeout, nullptr) > 0 && m_polled[0].revents != 0) {
        quint64 count;
        const ssize_t got = ::read(m_wakeFd, &count, sizeof(count));
        Q_UNUSED(got)
    }
}

QString Exchange::onModem(int modem, const std::function<QString(VirtualModem&)>& action)
{
    QString problem;
    perform([&] {
        VirtualModem* found = find(modem);
        problem = found ? action(*found) : noModem(modem);
    });
    return problem;
}

VirtualModem* Exchange::find(int modem) const
{
    return modem >= 1 && modem <= static_cast<int>(m_modems.size())
               ? m_modems[static_cast<std::size_t>(modem) - 1].get()
               : nullptr;
}

void Exchange::stepModem(VirtualModem& modem, qint64 now)
{
    if (!modem.endpoint.isOpen())
        return;
    modem.watchDtr(now);
    serve(modem, now);
    if (!modem.responds()) {
        modem.swallow();
        return;
    }
    modem.modem.advance(now);
    // One byte at a time: the byte after ATO is data already, and belongs to the line's pace.
    while (modem.modem.state() != ModemState::Data && modem.takeCommandByte(now))
        serve(modem, now);
}

void Exchange::serve(VirtualModem& modem, qint64 now)
{
    while (!modem.requests.empty()) {
        const ModemRequest request = modem.requests.front();
        modem.requests.pop_front();
        switch (request.kind) {
        case ModemRequest::Dial: beginCall(modem, request.number, request.pauseNs, now); break;
        case ModemRequest::Answer: answerCall(modem, now); break;
        case ModemRequest::HangUp: hangUp(modem, now); break;
        }
    }
}

// Whether the modem's bytes wait for the line's time.
bool Exchange::isPaced(const VirtualModem& modem) const
{
    const Call* call = modem.responds() && modem.modem.state() == ModemState::Data ? callOf(modem) : nullptr;
    if (!call || !call->line)
        return false;
    if (call->phase != Call::Connected) // nobody listens any more
        return true;
    return !(call->caller == &modem ? call->line->forward : call->line->backward).isIdle();
}

// Before a modem loses its power or its port.
void Exchange::detach(VirtualModem& modem)
{
    const qint64 now = nowNs();
    hangUp(modem, now);
    modem.requests.clear();
}

Exchange::Call* Exchange::callOf(const VirtualModem& modem) const
{
    for (const CallPtr& call : m_calls) {
        if (call->phase != Call::Ended &&
            (call->caller == &modem || (call->called == &modem && call->phase > Call::Ringing)))
            return call.get();
    }
    return nullptr;
}

Exchange::Call* Exchange::callRinging(const VirtualModem& modem) const
{
    for (const CallPtr& call : m_calls) {
        if (call->phase == Call::Ringing && call->called == &modem)
            return call.get();
    }
    return nullptr;
}

void Exchange::beginCall(VirtualModem& caller, const QString& number, qint64 pauseNs, qint64 now)
{
    auto call = std::make_unique<Call>();
    // Off hook while it rings is no way to a dial tone, and the end of the other's call.
    if (Call* ringing = callRinging(caller)) {
        failCall(*ringing, CallFailure::NoCarrier,
                 QStringLiteral("%1 dialled instead of answering").arg(caller.name()));
        call->noDialTone = true;
    }
    call->caller = &caller;
    call->beganNs = now;
    call->phaseEndNs = now + pauseNs;
    call->statistics.call = ++m_callCount;
    call->statistics.caller = caller.index;
    call->statistics.number = number;
    call->statistics.startedNs = now;
    call->statistics.line = m_line;
    m_calls.push_back(std::move(call));
}

void Exchange::placeCall(Call& call, qint64 now)
{
    VirtualModem& caller = *call.caller;
    if (call.noDialTone || caller.faults.noDialTone) {
        failCall(call, CallFailure::NoDialTone, QStringLiteral("no dial tone"));
        return;
    }
    VirtualModem* called = nullptr;
    for (const auto& modem : m_modems) {
        if (modem->settings.number == call.statistics.number)
            called = modem.get();
    }
    if (!called) {
        failCall(call, CallFailure::NoCarrier, QStringLiteral("nobody has that number"));
        return;
    }
    call.statistics.called = called->index;
    const bool onHook = !called->isAlive() || called->modem.state() == ModemState::OnHook;
    if (called->faults.busy || !onHook || callOf(*called) || callRinging(*called)) {
        failCall(call, CallFailure::Busy, QStringLiteral("busy"));
        return;
    }
    call.called = called;
    call.phase = Call::Ringing;
    call.nextRingNs = now;
    const qint64 patienceMs = std::min(caller.modem.registerValue(7) * 1000, m_settings.noAnswerAfterMs);
    call.phaseEndNs = now + patienceMs * nsPerMs;
    tell(caller.index, QStringLiteral("calls %1").arg(called->name()));
}

void Exchange::answerCall(VirtualModem& called, qint64 now)
{
    Call* call = callRinging(called);
    if (!call) {
        called.modem.callFailed(CallFailure::NoCarrier);
        return;
    }
    called.modem.ringingStopped();
    call->phase = Call::Training;
    call->phaseEndNs =
        now + (call->fromNobody ? called.modem.registerValue(7) * nsPerSecond : m_settings.trainingMs * nsPerMs);
}

void Exchange::connectCall(Call& call, qint64 now)
{
    if (call.fromNobody) {
        failCall(call, CallFailure::NoCarrier, QStringLiteral("nobody called"));
        return;
    }
    const LineSettings& line = call.statistics.line;
    const bool mayDrop = line.dropTimes == 0 || m_droppedCalls < line.dropTimes;
    call.line = std::make_unique<Line>(line, call.statistics.call, mayDrop, now);
    call.phase = Call::Connected;
    call.connectedAtNs = now;
    call.statistics.connected = true;
    updateNoise(call);
    tell(0, QStringLiteral("call %1: %2 and %3 are connected")
                .arg(call.statistics.call)
                .arg(call.caller->name(), call.called->name()));
    // Each is told the speed at which it receives.
    call.called->modem.connected(line.rateForward, now);
    call.caller->modem.connected(line.rateBackward, now);
}

void Exchange::hangUp(VirtualModem& modem, qint64 now)
{
    // One that rings has nothing to hang up, but may be taken away.
    Call* call = callOf(modem);
    if (!call)
        return;
    const QString why = QStringLiteral("%1 hung up").arg(modem.name());
    const bool isCaller = call->caller == &modem;
    (isCaller ? call->caller : call->called) = nullptr;
    modem.endpoint.setDrainRate(0);
    switch (call->phase) {
    case Call::Dialling:
    case Call::Ringing:
    case Call::Training: failCall(*call, CallFailure::NoCarrier, why); return;
    case Call::Connected:
        // The other side hears of it when the last bytes under way have come out.
        call->phase = Call::Ending;
        call->statistics.end = why;
        call->statistics.connectedNs = now - call->connectedAtNs;
        call->phaseEndNs = now + call->line->settings().delayMs * nsPerMs;
        return;
    case Call::Ending: endCall(*call, call->statistics.end); return;
    case Call::Ended: return;
    }
}

// Ends a call that has not been connected.
void Exchange::failCall(Call& call, CallFailure failure, const QString& why)
{
    VirtualModem* caller = call.caller;
    VirtualModem* called = call.called;
    const bool wasRinging = call.phase == Call::Ringing;
    endCall(call, why);
    if (called && wasRinging)
        called->modem.ringingStopped();
    else if (called && called->modem.state() == ModemState::Answering)
        called->modem.callFailed(CallFailure::NoCarrier);
    if (caller && caller->modem.state() == ModemState::Dialling)
        caller->modem.callFailed(failure);
}

// Ends a connection for both sides.
void Exchange::loseCarrier(Call& call, const QString& why)
{
    VirtualModem* caller = call.caller;
    VirtualModem* called = call.called;
    endCall(call, why);
    for (VirtualModem* modem : {caller, called}) {
        if (!modem)
            continue;
        modem->endpoint.setDrainRate(0);
        modem->modem.carrierLost();
    }
}

// The call is over; what its modems hear of that is the callers' affair.
void Exchange::endCall(Call& call, const QString& why)
{
    const qint64 now = nowNs();
    CallStatistics& statistics = call.statistics;
    statistics.end = why;
    statistics.waitedNs = (statistics.connected ? call.connectedAtNs : now) - call.beganNs;
    if (call.phase == Call::Connected)
        statistics.connectedNs = now - call.connectedAtNs;
    if (call.line) {
        statistics.forward = call.line->forward.finalStatistics();
        statistics.backward = call.line->backward.finalStatistics();
    }
    call.phase = Call::Ended;
    call.caller = nullptr;
    call.called = nullptr;
    if (call.fromNobody)
        return;
    m_endedCalls.append(statistics);
    tell(0, QStringLiteral("call %1 ended: %2").arg(statistics.call).arg(why));
}

void Exchange::stepCall(Call& call, qint64 now)
{
    switch (call.phase) {
    case Call::Dialling:
        if (now >= call.phaseEndNs)
            placeCall(call, now);
        if (call.phase == Call::Ringing)
            stepRinging(call, now);
        return;
    case Call::Ringing: stepRinging(call, now); return;
    case Call::Training:
        if (now >= call.phaseEndNs)
            connectCall(call, now);
        return;
    case Call::Connected: stepConnected(call, now); return;
    case Call::Ending: stepEnding(call, now); return;
    case Call::Ended: return;
    }
}

void Exchange::stepRinging(Call& call, qint64 now)
{
    VirtualModem& called = *call.called;
    if (call.ringEndNs >= 0 && now >= call.ringEndNs) {
        called.modem.ringPauses();
        call.ringEndNs = -1;
        if (call.ringsLeft == 0) {
            failCall(call, CallFailure::NoAnswer, QStringLiteral("no answer"));
            return;
        }
    }
    if (now >= call.phaseEndNs) {
        failCall(call, CallFailure::NoAnswer, QStringLiteral("no answer"));
        return;
    }
    if (now < call.nextRingNs || call.ringsLeft == 0)
        return;
    call.nextRingNs = now + m_settings.ringIntervalMs * nsPerMs;
    call.ringEndNs = now + m_settings.ringLengthMs * nsPerMs;
    if (call.ringsLeft > 0)
        --call.ringsLeft;
    if (called.responds() && !called.faults.noAnswer)
        called.modem.ring(now);
}

void Exchange::stepConnected(Call& call, qint64 now)
{
    pump(call.caller, call.called, call, call.line->forward, now);
    pump(call.called, call.caller, call, call.line->backward, now);
    if (call.phase == Call::Connected && call.line->hasDropped(now)) {
        ++m_droppedCalls;
        loseCarrier(call, QStringLiteral("the line dropped carrier"));
    }
}

void Exchange::stepEnding(Call& call, qint64 now)
{
    LineDirection& direction = call.caller ? call.line->backward : call.line->forward;
    deliverDue(call.caller ? call.caller : call.called, call, direction, now);
    if (now >= call.phaseEndNs && direction.nextDeliveryNs() < 0)
        loseCarrier(call, call.statistics.end);
}

void Exchange::pump(VirtualModem* from, VirtualModem* to, Call& call, LineDirection& direction, qint64 now)
{
    if (!from->responds() || from->modem.state() != ModemState::Data) {
        direction.rest();
        from->endpoint.setDrainRate(0); // commands are taken at once
    } else {
        from->endpoint.setDrainRate(direction.rate() / bitsPerByte);
        if (direction.isIdle() && from->endpoint.hasInput())
            direction.wake(now);
        const qint64 room = direction.room(now);
        if (room > 0) {
            const QByteArray bytes = from->takeData(room, now);
            direction.carry(bytes, from->endpoint.bytesFromProgram() > 0, now);
        }
    }
    deliverDue(to, call, direction, now);
}

void Exchange::deliverDue(VirtualModem* to, Call& call, LineDirection& direction, qint64 now)
{
    const QByteArray bytes = direction.deliver(now, call.line->bytesBeforeDrop());
    if (bytes.isEmpty())
        return;
    if (to->responds() && to->modem.state() == ModemState::Data) {
        to->deliver(bytes);
        direction.countLost(to->takeOverrun());
    } else {
        direction.countLost(bytes.size());
    }
}

void Exchange::updateNoise(Call& call)
{
    if (call.line && call.caller && call.called)
        call.line->setNoisy(!call.caller->faults.noNoise && !call.called->faults.noNoise);
}

qint64 Exchange::nextCallEventNs(const Call& call) const
{
    switch (call.phase) {
    case Call::Dialling:
    case Call::Training: return call.phaseEndNs;
    case Call::Ringing: return earlier(earlier(call.nextRingNs, call.ringEndNs), call.phaseEndNs);
    case Call::Connected: {
        qint64 next = call.line->dropNs();
        for (const LineDirection* direction : {&call.line->forward, &call.line->backward}) {
            next = earlier(next, direction->nextDeliveryNs());
            if (!direction->isIdle())
                next = earlier(next, direction->nextRoomNs());
        }
        return next;
    }
    case Call::Ending:
        return earlier(call.phaseEndNs, (call.caller ? call.line->backward : call.line->forward).nextDeliveryNs());
    case Call::Ended: return -1;
    }
    return -1;
}

void Exchange::tell(int modem, const QString& text) const
{
    m_events.push_back({nowNs(), modem, text});
}

qint64 Exchange::nowNs() const
{
    return clockNs() - m_originNs;
}

} // namespace sim
