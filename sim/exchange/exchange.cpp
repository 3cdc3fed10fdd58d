#include "sim/exchange/exchange.h"

#include "sim/line/moments.h"

#include <algorithm>
#include <poll.h>

namespace sim {

namespace {

constexpr qint64 backlogNs = 2 * nsPerMs; // between tries at a program that does not read
constexpr qint64 watchNs = 5 * nsPerMs; // between looks at DTR, of which nothing wakes us

QString noModem(int modem)
{
    return QStringLiteral("there is no modem %1").arg(modem);
}

} // namespace

Exchange::Exchange(const CallSettings& settings) : m_originNs(clockNs()), m_calls(this, settings) {}

Exchange::~Exchange()
{
    stop();
}

void Exchange::setObserver(Observer observer)
{
    m_observer = std::move(observer);
}

int Exchange::addModem(const ModemSettings& settings, QString* error)
{
    int index = 0;
    m_tasks.perform([&] {
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
    m_tasks.perform([&] { count = static_cast<int>(m_modems.size()); });
    return count;
}

QString Exchange::portPath(int modem) const
{
    return status(modem).portPath;
}

ModemStatus Exchange::status(int modem) const
{
    ModemStatus status;
    m_tasks.perform([&] {
        const VirtualModem* found = find(modem);
        if (!found)
            return;
        status.number = found->settings.number;
        status.portPath = found->endpoint.portPath();
        status.state = found->modem.state();
        status.plugged = found->endpoint.isOpen();
        status.powered = found->isPowered();
        status.modemSignals = found->endpoint.modemSignals();
        status.programSignals = found->endpoint.programSignals();
        status.baudRate = found->endpoint.baudRate();
        status.faults = found->faults;
    });
    return status;
}

void Exchange::start()
{
    m_tasks.perform([this] {
        if (m_thread.joinable())
            return;
        m_stopping = false;
        m_thread = std::thread([this] { run(); });
    });
}

void Exchange::stop()
{
    if (!m_thread.joinable())
        return;
    m_stopping = true;
    m_tasks.wake();
    m_thread.join();
}

QString Exchange::dropCarrier(int modem)
{
    return onModem(modem, [this](VirtualModem& found) {
        return m_calls.dropCarrier(found, QStringLiteral("carrier dropped by command"), nowNs())
                   ? QString()
                   : QStringLiteral("%1 has no connection").arg(found.name());
    });
}

QString Exchange::setSilent(int modem, bool on)
{
    return setFault(modem, &ModemFaults::silent, on,
                    on ? QStringLiteral("falls silent") : QStringLiteral("speaks again"));
}

QString Exchange::setPowered(int modem, bool on)
{
    return onModem(modem, [this, on](VirtualModem& found) {
        if (found.isPowered() == on)
            return QString();
        tell(found.index(), on ? QStringLiteral("power on") : QStringLiteral("power off"));
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
        tell(found.index(), QStringLiteral("unplugged"));
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
        tell(found.index(), QStringLiteral("plugged in as %1").arg(found.endpoint.portPath()));
        return QString();
    });
}

QString Exchange::setBusy(int modem, bool on)
{
    return setFault(modem, &ModemFaults::busy, on,
                    on ? QStringLiteral("is busy for callers") : QStringLiteral("is free for callers"));
}

QString Exchange::setDialTone(int modem, bool on)
{
    return setFault(modem, &ModemFaults::noDialTone, !on,
                    on ? QStringLiteral("has a dial tone") : QStringLiteral("has no dial tone"));
}

QString Exchange::setAnswering(int modem, bool on)
{
    return onModem(modem, [this, on](VirtualModem& found) {
        tell(found.index(), on ? QStringLiteral("is told of calls") : QStringLiteral("is not told of calls"));
        found.faults.noAnswer = !on;
        if (!on)
            found.modem.ringPauses();
        return QString();
    });
}

QString Exchange::setNoise(int modem, bool on)
{
    QString problem;
    m_tasks.perform([&] {
        if (modem != 0 && !find(modem)) {
            problem = noModem(modem);
            return;
        }
        for (const auto& each : m_modems) {
            if (modem == 0 || each->index() == modem)
                each->faults.noNoise = !on;
        }
        m_calls.updateNoise();
        tell(modem, on ? QStringLiteral("noise on") : QStringLiteral("noise off"));
    });
    return problem;
}

QString Exchange::changeLine(const QString& text)
{
    QString problem;
    m_tasks.perform([&] {
        if (m_calls.changeLine(text, &problem))
            tell(0, QStringLiteral("line of later calls: %1").arg(m_calls.line().toString()));
    });
    return problem;
}

QString Exchange::ring(int modem, int times)
{
    return onModem(modem, [this, times](VirtualModem& found) {
        return m_calls.ringFromNobody(found, times, nowNs())
                   ? QString()
                   : QStringLiteral("%1 has a call already").arg(found.name());
    });
}

QString Exchange::say(int modem, const QString& text)
{
    return onModem(modem, [this, &text](VirtualModem& found) {
        if (!found.responds())
            return QStringLiteral("%1 cannot say anything now").arg(found.name());
        tell(found.index(), QStringLiteral("says %1").arg(text));
        found.say(text.toLatin1());
        return QString();
    });
}

LineSettings Exchange::line() const
{
    LineSettings settings;
    m_tasks.perform([&] { settings = m_calls.line(); });
    return settings;
}

QVector<CallStatistics> Exchange::endedCalls() const
{
    QVector<CallStatistics> calls;
    m_tasks.perform([&] { calls = m_calls.ended(); });
    return calls;
}

int Exchange::activeCalls() const
{
    int count = 0;
    m_tasks.perform([&] { count = m_calls.activeCount(); });
    return count;
}

void Exchange::run()
{
    m_tasks.attach();
    while (!m_stopping) {
        m_tasks.run();
        const qint64 now = nowNs();
        const qint64 wakeNs = step(now);
        report();
        waitForWork(now, wakeNs);
    }
    m_calls.endAll(QStringLiteral("the exchange stopped"), nowNs());
    report();
    m_tasks.detach();
}

// One pass over everything that is due; returns when the next one is.
qint64 Exchange::step(qint64 now)
{
    for (const auto& modem : m_modems)
        stepModem(*modem, now);
    m_calls.advance(now);
    for (const auto& modem : m_modems)
        serve(*modem, now);

    qint64 wakeNs = earlier(now + nsPerSecond, m_calls.nextEventNs());
    for (const auto& modem : m_modems) {
        wakeNs = earlier(wakeNs, modem->modem.nextEventNs());
        if (modem->endpoint.isOpen())
            wakeNs = earlier(wakeNs, now + watchNs);
        if (modem->flush())
            wakeNs = earlier(wakeNs, now + backlogNs);
    }
    return std::max(wakeNs, now + sliceNs);
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
    m_polled.push_back({m_tasks.wakeFd(), POLLIN, 0});
    for (const auto& modem : m_modems) {
        // What a modem's line has no time to carry yet must not wake us.
        if (modem->endpoint.isOpen() && !m_calls.isPaced(*modem))
            m_polled.push_back({modem->endpoint.masterFd(), POLLIN, 0});
    }
    const qint64 waitNs = std::max<qint64>(wakeNs - std::max(nowNs(), now), 0);
    const timespec timeout = toTimespec(waitNs);
    if (ppoll(m_polled.data(), m_polled.size(), &timeout, nullptr) > 0 && m_polled[0].revents != 0)
        m_tasks.clearWake();
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
        case ModemRequest::Dial: m_calls.dial(modem, request.number, request.pauseNs, now); break;
        case ModemRequest::Answer: m_calls.answer(modem, now); break;
        case ModemRequest::HangUp: m_calls.hangUp(modem, now); break;
        }
    }
}

QString Exchange::onModem(int modem, const std::function<QString(VirtualModem&)>& action)
{
    QString problem;
    m_tasks.perform([&] {
        VirtualModem* found = find(modem);
        problem = found ? action(*found) : noModem(modem);
    });
    return problem;
}

QString Exchange::setFault(int modem, bool ModemFaults::*fault, bool set, const QString& text)
{
    return onModem(modem, [&](VirtualModem& found) {
        tell(found.index(), text);
        found.faults.*fault = set;
        return QString();
    });
}

VirtualModem* Exchange::find(int modem) const
{
    return modem >= 1 && modem <= static_cast<int>(m_modems.size())
               ? m_modems[static_cast<std::size_t>(modem) - 1].get()
               : nullptr;
}

// Before a modem loses its power or its port.
void Exchange::detach(VirtualModem& modem)
{
    m_calls.hangUp(modem, nowNs());
    modem.requests.clear();
}

CallParty* Exchange::partyAt(const QString& number)
{
    for (const auto& modem : m_modems) {
        if (modem->settings.number == number)
            return modem.get();
    }
    return nullptr;
}

void Exchange::tell(int modem, const QString& text)
{
    m_events.push_back({nowNs(), modem, text});
}

qint64 Exchange::nowNs() const
{
    return clockNs() - m_originNs;
}

} // namespace sim
