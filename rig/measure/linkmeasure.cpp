#include "rig/measure/linkmeasure.h"

#include "com/link/ccomchannel.h"
#include "com/link/currentcomsettings.h"
#include "common/csettings.h"
#include "host/channel/sessionpass.h"
#include "host/session/session.h"
#include "rig/host/memorystore.h"
#include "rig/host/sealedpeer.h"
#include "rig/line/line.h"
#include "rig/line/turns.h"
#include "rig/randombytes.h"
#include "rig/rng.h"
#include "rig/silentstate.h"

#include <QCoreApplication>
#include <QSerialPort>

#include <algorithm>
#include <memory>

namespace rig::measure {

namespace {

using rig::nowNs;
using rig::nsPerMs;
using rig::nsPerS;

constexpr int bitsPerByteOnLine = 10;

constexpr int mostBlockBytes = 65536; // the channel says what it takes

constexpr std::int64_t meanBetweenPausesNs = 10 * nsPerS;

constexpr std::int64_t meanBetweenRetrainsNs = 20 * nsPerS;

// So slow that it will not end.
constexpr double leastShare = 0.02;
constexpr std::int64_t graceNs = 120 * nsPerS;

// One end of the call: the port, the channel and the session.
class End
{
public:
    End(int end, const Course& course, const tune::LinkProfile& profile)
        : m_pauseNs(course.pauseMs * nsPerMs), m_rng(course.seed * 16 + static_cast<std::uint64_t>(end))
    {
        schedulePause();
        m_port.setPortName(QString::fromStdString(rig::Line::path(end)));
        m_isOpen = m_port.open(QIODevice::ReadWrite);
        m_channel = std::make_unique<CComChannel>(&m_port, &m_state, end, course.adaptive[end]);
        host::SessionSettings settings;
        settings.abonentName = QString::number(end);
        settings.identity = rig::testKey(end);
        m_directory.everybodyElse = QString::number(1 - end);
        const host::SessionCall call{end == 0, m_directory.everybodyElse};
        m_session = std::make_unique<host::Session>(
            settings, call, &m_directory, store.forSessions(), [this](const host::SessionEvent& event) { note(event); },
            nowMs());
        m_pass = std::make_unique<host::SessionPass>(
            m_session.get(), m_channel.get(), course.adaptive[end] ? mostBlockBytes : profile.maxBytesToWrite, nowMs);
    }

    rig::MemoryStore store;

    bool isOpen() const { return m_isOpen; }
    std::int64_t nextTurnNs() const { return m_nextTurnNs; }
    bool knowsPeer() const { return m_knowsPeer; }
    bool wasOffered() const { return m_wasOffered; }
    QString endReason() const { return m_session->isFinished() ? m_session->endReason() : QString(); }

    void turn()
    {
        QCoreApplication::processEvents(); // where the port's own notifiers have their turn
        m_pass->rested();
        m_pass->readAll();
        m_session->advance(nowMs());
        m_pass->writeAll();
        m_nextTurnNs = nowNs() + m_pass->pauseMs() * nsPerMs;
        if (m_pauseNs > 0 && nowNs() >= m_nextPauseNs) {
            m_nextTurnNs += m_pauseNs;
            schedulePause();
        }
    }

private:
    static qint64 nowMs() { return nowNs() / nsPerMs; }

    void note(const host::SessionEvent& event)
    {
        m_knowsPeer = m_knowsPeer || event.kind == host::SessionEvent::Kind::PeerNamed;
        m_wasOffered = m_wasOffered || (event.kind == host::SessionEvent::Kind::FileBegun && !event.file.isOutgoing);
    }

    void schedulePause() { m_nextPauseNs = nowNs() + static_cast<std::int64_t>(m_rng.below(2 * meanBetweenPausesNs)); }

    const std::int64_t m_pauseNs;
    rig::Rng m_rng;
    std::int64_t m_nextPauseNs = 0;
    rig::SilentState m_state;
    QSerialPort m_port;
    bool m_isOpen = false;
    std::unique_ptr<CComChannel> m_channel;
    rig::TestDirectory m_directory;
    std::unique_ptr<host::Session> m_session;
    std::unique_ptr<host::SessionPass> m_pass;
    std::int64_t m_nextTurnNs = 0;
    bool m_knowsPeer = false;
    bool m_wasOffered = false;
};

// Of the direction that starts at end.
rig::LineSettings lineSettings(const Course& course, int end)
{
    rig::LineSettings line;
    line.bitsPerSecond = course.line.rate;
    if (end == 1)
        line.bitsPerSecond = static_cast<int>(course.line.rate * course.wayBackShare);
    line.hidesOutput = course.hidesOutput;
    line.modemBytes = course.modemBytes;
    line.portBitsPerSecond = static_cast<int>(line.bitsPerSecond * course.portShare);
    line.flowControl = course.flowControl;
    line.delayNs = course.line.delayMs * nsPerMs;
    line.chunkBytes = std::max(1, course.line.rate / 10 / 1000); // a millisecond's
    line.driverDepth = course.line.bufferBytes;
    line.wakesWhenLow = course.wakesWhenLow;
    return line;
}

Outcome failed(const std::string& text)
{
    Outcome outcome;
    outcome.error = text;
    return outcome;
}

// Values outside their ranges are not taken, and a file may be missing.
bool isInForce(const tune::LinkProfile& profile)
{
    CSettings settings;
    return settings.detailsTransportComMaxBytesToWrite() == profile.maxBytesToWrite &&
           settings.detailsTransportComMaxBytesInQueue() == profile.maxBytesInQueue &&
           settings.detailsTransportComResendInterval() == profile.resendIntervalMs &&
           settings.detailsTransportComConfirmationInterval() == profile.confirmationIntervalMs;
}

class Run
{
public:
    Run(const Course& course, const tune::LinkProfile& profile)
        : m_course(course), m_line(std::array{lineSettings(course, 0), lineSettings(course, 1)}, course.seed),
          m_ends{End(0, course, profile), End(1, course, profile)}
    {
        rig::Rng rng(course.seed + 1);
        rig::Faults faults;
        faults.bitErrorRate = course.line.bitErrorRate;
        for (int end = 0; end < 2; ++end) {
            m_line.setFaults(end, faults);
            m_files[end] = rig::drawBytes(static_cast<int>(course.bytes[end]), [&] { return rng.next(); });
            if (course.bytes[end] > 0)
                m_ends[end].store.queue(QStringLiteral("file"), m_files[end]);
        }
    }

    Outcome run()
    {
        Outcome outcome;
        if (!m_ends[0].isOpen() || !m_ends[1].isOpen())
            return failed("a port does not open");
        const std::int64_t startNs = nowNs();
        const std::int64_t most = std::max(m_course.bytes[0], m_course.bytes[1]);
        const std::int64_t longestNs =
            graceNs + static_cast<std::int64_t>(static_cast<double>(most) / bytesPerS() / leastShare) * nsPerS;
        bool isDone = false;
        while (!isDone) {
            retrainNowAndThen();
            End& end = rig::awaitNextTurn(m_ends);
            end.turn();
            if (m_ends[0].knowsPeer() && m_ends[1].knowsPeer())
                noteMoment(startNs, &outcome.bothProved);
            if (end.wasOffered())
                noteMoment(startNs, &outcome.firstOffer);
            isDone = true;
            for (int from = 0; from < 2; ++from)
                isDone = note(from, startNs, &outcome) && isDone;
            if (!end.endReason().isEmpty() && !isDone)
                return failed("a session ended: " + end.endReason().toStdString());
            if (nowNs() - startNs > longestNs)
                return failed("far too slow");
        }
        return outcome;
    }

private:
    void retrainNowAndThen()
    {
        if (m_course.retrainMs == 0 || nowNs() < m_nextRetrainNs)
            return;
        if (m_nextRetrainNs > 0) {
            for (int end = 0; end < 2; ++end)
                m_line.from(end).pauseUntil(nowNs() + m_course.retrainMs * nsPerMs);
        }
        m_nextRetrainNs = nowNs() + static_cast<std::int64_t>(m_rng.below(2 * meanBetweenRetrainsNs));
    }

    double bytesPerS() const { return static_cast<double>(m_course.line.rate) / bitsPerByteOnLine; }

    void noteMoment(std::int64_t startNs, Outcome::Moment* moment)
    {
        if (moment->seconds > 0)
            return;
        moment->seconds = static_cast<double>(nowNs() - startNs) / nsPerS;
        for (int from = 0; from < 2; ++from)
            moment->bytes[from] = m_line.from(from).bytesCarried();
    }

    // Whether the file from that end has arrived; when it just has, takes the figures down.
    bool note(int from, std::int64_t startNs, Outcome* outcome)
    {
        if (m_course.bytes[from] == 0 || outcome->share[from] > 0)
            return true;
        const auto& inbox = m_ends[1 - from].store.inbox;
        if (inbox.empty())
            return false;
        if (inbox.front().content != m_files[from])
            outcome->error = "what arrived is not what was sent";
        const double possible = static_cast<double>(nowNs() - startNs) / nsPerS * bytesPerS();
        outcome->share[from] = static_cast<double>(m_course.bytes[from]) / possible;
        outcome->busy[from] = static_cast<double>(m_line.from(from).bytesCarried()) / possible;
        return true;
    }

    const Course& m_course;
    rig::Rng m_rng{m_course.seed + 2};
    std::int64_t m_nextRetrainNs = 0;
    rig::Line m_line;
    std::array<End, 2> m_ends;
    std::array<QByteArray, 2> m_files;
};

} // namespace

rig::ChannelSettings channelSettings(const tune::LinkProfile& profile)
{
    return {profile.packetSize, profile.maxBytesToWrite, profile.maxBytesInQueue, profile.resendIntervalMs,
            profile.confirmationIntervalMs};
}

Outcome run(const Course& course, const tune::LinkProfile& profile)
{
    if (!isInForce(profile))
        return failed("settings that the channel does not take");
    ChannelComSettings settings;
    settings.packetSize = profile.packetSize;
    setCurrentComSettings(settings);
    Run run(course, profile);
    return run.run();
}

} // namespace rig::measure
