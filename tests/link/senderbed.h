// An adaptive sender with the queue and the send window that a channel has around it, and a port
// whose depth is made up; the test moves the time.
#pragma once

#include "com/link/adaptivesender.h"
#include "com/link/linkrules.h"
#include "com/link/sendwindow.h"

#include <algorithm>
#include <functional>
#include <initializer_list>
#include <string>

namespace linktest {

class SenderBed
{
public:
    using Kind = AdaptiveSender::Step::Kind;

    struct Port
    {
        bool tellsDepth = false; // otherwise it always says that it is empty
        qint64 bytesPerS = 0; // 0: what was written in one pass is gone by the next
        qint64 hiddenBytes = 0; // in a driver that tells nothing of what it holds
    };

    static AdaptiveSender::Settings defaultSettings() { return {1024, 1024, 10240, 2000}; }

    explicit SenderBed(const AdaptiveSender::Settings& settings = defaultSettings()) : sender(settings) {}

    // What the host writes: so many packets of so many bytes of payload.
    void write(int packets, int payloadBytes = 1)
    {
        for (int i = 0; i < packets; ++i)
            append(QByteArray(payloadBytes, 'x'));
    }

    void append(const QByteArray& payload)
    {
        CComPacket packet;
        packet.type = DataPacket;
        packet.number = nextNumber++;
        packet.data = payload;
        packet.makePacket();
        queuedBytes += payload.size();
        queue.append(packet);
    }

    // One pass as a channel makes it; confirmed: the numbers of one confirmation that has come.
    // What the sender does, at most mostSteps: "new 1, needed 2, again 3, empty 4", that is a
    // packet for the first time, a repeat of one known to be lost, any other repeat, and a new
    // packet without payload.
    std::string pass(qint64 atMs, std::initializer_list<int> confirmed = {}, int mostSteps = 20000)
    {
        begin(atMs * 1000);
        QVector<quint8> numbers;
        for (const int number : confirmed)
            numbers.append(static_cast<quint8>(number));
        if (!numbers.isEmpty())
            confirm(numbers);
        return steps(mostSteps);
    }

    // A pass every 10 ms, up to and including atMs: "450: empty 3, again 2" for each that did
    // something.
    std::string passesUntil(qint64 atMs)
    {
        std::string done;
        for (qint64 ms = nowUs / 1000 + 10; ms <= atMs; ms += 10) {
            const std::string did = pass(ms);
            if (!did.empty())
                done += (done.empty() ? "" : "; ") + std::to_string(ms) + ": " + did;
        }
        return done;
    }

    // The parts of a pass.

    void begin(qint64 atUs)
    {
        drain(atUs - nowUs);
        nowUs = atUs;
        sender.beginPass(nowUs, toldBytes());
    }

    void confirm(const QVector<quint8>& numbers)
    {
        QVector<quint8> taken;
        int ahead = 0;
        quint8 previous = queue.isEmpty() ? nextNumber : queue.first().number;
        for (int i = 0; i < queue.size();) {
            const CComPacket& packet = queue.at(i);
            ahead += linkrules::stepsFrom(previous, packet.number);
            previous = packet.number;
            if (!numbers.contains(packet.number) || !SendWindow::mayBeConfirmed(packet, ahead)) {
                ++i;
                continue;
            }
            if (packet.sentTime != 0)
                taken.append(packet.number);
            queuedBytes -= packet.data.size();
            queue.removeAt(i);
        }
        window.noteConfirmed(taken);
        sender.confirmed(taken, nowUs);
    }

    std::string steps(int most)
    {
        std::string done;
        for (int i = 0; i < most; ++i) {
            const AdaptiveSender::Step step = sender.next({queue, newPacketsLimit(), nextNumber}, nowUs, toldBytes());
            if (step.kind == Kind::Nothing)
                return done;
            done += (done.empty() ? "" : ", ") + take(step);
        }
        return done;
    }

    int newPacketsLimit() const { return std::min({limit, window.newPacketsLimit(queue), SendWindow::maxAheadOfLag}); }

    AdaptiveSender sender;
    SendWindow window;
    Port port;
    int limit = SendWindow::maxAheadOfLag; // how far ahead of the oldest packet a new one may be
    QList<CComPacket> queue;
    quint8 nextNumber = 1;
    int queuedBytes = 0;
    qint64 nowUs = 0;
    qint64 pendingBytes = 0; // in the port
    qint64 repeatedBytes = 0; // that were not known to be lost
    std::function<void(const CComPacket&, Kind)> onSent;

private:
    static constexpr qint64 usPerS = 1'000'000;

    qint64 toldBytes() const { return port.tellsDepth ? std::max<qint64>(0, pendingBytes - port.hiddenBytes) : 0; }

    void drain(qint64 forUs)
    {
        m_drained += forUs * port.bytesPerS;
        const qint64 bytes = port.bytesPerS == 0 ? pendingBytes : std::min(pendingBytes, m_drained / usPerS);
        pendingBytes -= bytes;
        m_drained = pendingBytes == 0 ? 0 : m_drained - bytes * usPerS;
    }

    std::string take(const AdaptiveSender::Step& step)
    {
        if (step.kind == Kind::SendEmpty)
            append(QByteArray());
        const bool isRepeat = step.kind == Kind::Repeat;
        const auto packet = std::find_if(queue.begin(), queue.end(), [&](const CComPacket& queued) {
            return isRepeat ? queued.number == step.number : queued.sentTime == 0;
        });
        if (packet == queue.end())
            return "nothing there to send";
        if (isRepeat)
            window.noteRepeated(packet->number, queue.first().number);
        else
            window.noteSent(packet->number, queue.first().number);
        packet->sentTime = 1; // "was sent"
        pendingBytes += packet->bytes.size();
        if (isRepeat && !step.isNeeded)
            repeatedBytes += packet->bytes.size();
        sender.sent(step, packet->number, packet->bytes.size());
        if (onSent)
            onSent(*packet, step.kind);
        const char* const what = step.kind == Kind::SendEmpty ? "empty "
                                 : step.kind == Kind::SendNew ? "new "
                                 : step.isNeeded              ? "needed "
                                                              : "again ";
        return what + std::to_string(packet->number);
    }

    qint64 m_drained = 0; // of the next byte, in byte/s * us
};

} // namespace linktest
