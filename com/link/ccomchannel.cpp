#include "com/link/ccomchannel.h"

#include "com/link/currentcomsettings.h"
#include "com/link/linkrules.h"
#include "com/link/rememberednoise.h"
#include "com/port/pendingoutput.h"
#include "com/port/portwait.h"
#include "common/csettings.h"
#include "common/functiondebug.h"
#include "common/logger.h"
#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/channeltype.h"

#include <QDateTime>
#include <QSerialPort>
#include <QThread>

#include <algorithm>
#include <bitset>
#include <utility>

namespace {

constexpr int readWaitMs = 10;
constexpr int writtenWaitMs = 10; // after each packet
constexpr int newPacketRoomWaitMs = 50; // no room for a packet
constexpr int repeatRoomWaitMs = 100;

constexpr int guardTimeMs = 1000; // silence that a modem wants in front of "+++"
constexpr int commandWaitMs = 500;

constexpr int loggedCheckBytes = 4;

QString label()
{
    return QStringLiteral("CComChannel");
}

QString hex(const QByteArray& bytes)
{
    return QString::fromLatin1(bytes.toHex());
}

void logWritten(const QByteArray& bytes)
{
    if (CSettings().debugTransportComData())
        debug(label(), QStringLiteral("Запись: %1").arg(hex(bytes)), DebugAlways, DebugFlagNone);
}

void logSent(const CComPacket& packet, bool isRepeat)
{
    const QString number = QString::number(packet.number);
    const QString size = QString::number(packet.data.size());
    if (isRepeat) {
        debug(label(), QStringLiteral("Запись пакета с данными (повтор) - номер %1, размер %2.").arg(number, size),
              DebugTransportComPackets, DebugFlagNone);
    } else {
        debug(label(),
              QStringLiteral("Запись пакета с данными - номер %1, размер %2, crc %3")
                  .arg(number, size, hex(packet.bytes.right(loggedCheckBytes))),
              DebugTransportComPackets, DebugFlagNone);
    }
    logWritten(packet.bytes);
}

// Each read where it is first used, and then kept.

int maxBytesToWriteAtOnce()
{
    static const int bytes = CSettings().detailsTransportComMaxBytesToWrite();
    return bytes;
}

int maxBytesInQueue()
{
    static const int bytes = CSettings().detailsTransportComMaxBytesInQueue();
    return bytes;
}

int resendIntervalMs()
{
    static const int ms = CSettings().detailsTransportComResendInterval();
    return ms;
}

bool isAdaptiveBySettings()
{
    static const bool isAdaptive = CSettings().detailsTransportComAdaptive() != 0;
    return isAdaptive;
}

AdaptiveSender::Settings adaptiveSettings()
{
    return {currentPacketSize(), maxBytesToWriteAtOnce(), maxBytesInQueue(), resendIntervalMs()};
}

} // namespace

CComChannel::CComChannel(QSerialPort* port, CAbstractChannelsState* state, int channelIndex)
    : CComChannel(port, state, channelIndex, isAdaptiveBySettings())
{
}

CComChannel::CComChannel(QSerialPort* port, CAbstractChannelsState* state, int channelIndex, bool isAdaptive)
    : m_port(port), m_channelsState(state), m_channelIndex(channelIndex)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    type = ChannelType::dialUp;
    m_confirmationTimer.start();
    if (!isAdaptive)
        return;
    m_clock.start();
    m_adaptive = std::make_unique<Adaptive>(m_port->portName(), adaptiveSettings());
}

CComChannel::Adaptive::Adaptive(const QString& port, const AdaptiveSender::Settings& settings)
    : portName(port), sender(settings, rememberedNoise(port))
{
}

CComChannel::Adaptive::~Adaptive()
{
    rememberNoise(portName, sender.noise());
}

void CComChannel::disconnectFromAbonent()
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    static const int resetTimeoutMs = CSettings().detailsTransportComResetTimeout();

    QThread::msleep(guardTimeMs);
    discardInput();

    // With the worker's label, because this belongs to its dialogue with the modem.
    debug(QStringLiteral("CComThread"), QStringLiteral("Запись команды: +++, ATH"), DebugTransportComAtCommands,
          DebugFlagNone);
    m_port->write("+++");
    waitForWritten(*m_port, commandWaitMs);
    if (!waitForOk(resetTimeoutMs)) {
        debug(label(), QStringLiteral("Не удалось разорвать соединение вовремя"), DebugTransportComAtCommands,
              DebugFlagNone);
    }
    m_port->write("ATH\r\n"); // CR LF, whatever control symbol is set for other commands
    waitForWritten(*m_port, commandWaitMs);
    m_connected = false;
}

bool CComChannel::isConnected()
{
    return m_connected && m_port->isOpen() && (m_port->pinoutSignals() & QSerialPort::DataCarrierDetectSignal);
}

void CComChannel::write(const QByteArray& data)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    const int blockBytes = blockSize();
    for (int offset = 0; offset < data.size(); offset += blockBytes)
        queuePacket(data.mid(offset, blockBytes));
}

void CComChannel::queuePacket(const QByteArray& payload)
{
    CComPacket packet;
    packet.type = DataPacket;
    packet.number = m_nextNumber++;
    packet.data = payload;
    packet.makePacket();
    m_queuedBytes += packet.data.size();
    m_sendQueue.append(packet);
}

int CComChannel::blockSize() const
{
    const int packetSize = currentPacketSize();
    if (m_adaptive)
        return linkrules::blockSize(packetSize, m_adaptive->sender.packetBytes());
    static const int maxBytesToWrite = CSettings().detailsTransportComMaxBytesToWrite();
    return linkrules::blockSize(packetSize, maxBytesToWrite);
}

QByteArray CComChannel::read(int maxSize)
{
    readPort();
    if (m_adaptive)
        m_adaptive->sender.beginPass(nowUs(), pendingOutput(*m_port));
    computePackets();
    resending();
    return takeReceived(maxSize);
}

int CComChannel::idealBlockSize()
{
    const int mostBytes = m_adaptive ? m_adaptive->sender.mostQueuedBytes() : maxBytesInQueue();
    const quint8 first = m_sendQueue.isEmpty() ? m_nextNumber : m_sendQueue.first().number;
    if (!linkrules::mayQueueMore(m_sendQueue.size(), m_queuedBytes, mostBytes, m_nextNumber, first))
        return 0;
    return m_adaptive ? std::min(currentPacketSize(), m_adaptive->sender.packetBytes()) : currentPacketSize();
}

void CComChannel::readPort()
{
    waitForWritten(*m_port, m_adaptive ? 0 : readWaitMs); // adaptive: what the driver takes at once
    if (m_port->bytesAvailable() == 0)
        waitForInput(*m_port, readWaitMs);
    const QByteArray bytes = m_port->readAll();
    const bool logsData = CSettings().debugTransportComData();
    if (logsData && !bytes.isEmpty())
        debug(label(), QStringLiteral("Чтение: %1").arg(hex(bytes)), DebugAlways, DebugFlagNone);
    m_receiveBuffer.append(bytes);
}

void CComChannel::computePackets()
{
    int taken = 0;
    for (bool found = true; found;) {
        CComPacket packet;
        int end = 0;
        found = packet.cut(m_receiveBuffer.constData() + taken, m_receiveBuffer.size() - taken, &end) ==
                CComPacket::Cut::Packet;
        taken += end;
        if (found)
            computePacket(packet);
    }
    // Also the bytes before an incomplete packet. Otherwise, with many headers one after another,
    // each announcing more bytes than the last, the buffer would grow without end, and so would
    // the time to search it again.
    m_receiveBuffer.remove(0, taken);
}

void CComChannel::computePacket(const CComPacket& packet)
{
    if (packet.type == DataPacket)
        computeData(packet);
    else if (packet.type == ConfirmationPacket)
        computeConfirmation(packet);
}

void CComChannel::computeData(const CComPacket& packet)
{
    debug(label(),
          QStringLiteral("Прочитан пакет с данными - номер %1, размер %2, crc %3")
              .arg(QString::number(packet.number), QString::number(packet.data.size()),
                   hex(packet.bytes.right(loggedCheckBytes))),
          DebugTransportComPackets, DebugFlagNone);

    if (m_adaptive)
        m_adaptive->confirmations.arrived(packet.number, m_expectedNumber, packet.bytes.size());
    linkrules::dropOvertaken(m_held, m_expectedNumber, packet.number);
    if (packet.number == m_expectedNumber) {
        // Held packets are delivered only with the next packet that arrives ahead.
        deliver(packet);
    } else if (linkrules::numberLessThen(m_expectedNumber, packet.number)) {
        CComPacket kept;
        kept.number = packet.number;
        kept.data = QByteArray(packet.data.constData(), packet.data.size());
        linkrules::hold(m_held, kept);
        while (!m_held.isEmpty() && m_held.first().number == m_expectedNumber)
            deliver(m_held.takeFirst());
    }
    // Dropped ones too: a repeat of a delivered packet must be confirmed again.
    m_toConfirm.insert(packet.number);
}

void CComChannel::computeConfirmation(const CComPacket& packet)
{
    if (CSettings().debugTransportComPackets()) {
        debug(label(),
              QStringLiteral("Прочитан пакет с подтверждениями - номера %1").arg(linkrules::numbersText(packet.data)),
              DebugAlways, DebugFlagNone);
    }
    std::bitset<256> confirmed;
    for (const char number : packet.data)
        confirmed.set(static_cast<quint8>(number));
    QVector<quint8> taken; // of those that had gone out
    int ahead = 0; // of the oldest; does not wrap, however long the queue
    quint8 previous = m_sendQueue.isEmpty() ? m_nextNumber : m_sendQueue.first().number;
    for (auto queued = m_sendQueue.begin(); queued != m_sendQueue.end();) {
        ahead += linkrules::stepsFrom(previous, queued->number);
        previous = queued->number;
        if (!confirmed.test(queued->number) || !SendWindow::mayBeConfirmed(*queued, ahead)) {
            ++queued;
            continue;
        }
        if (queued->sentTime != 0)
            taken.append(queued->number);
        m_channelsState->addSentBytes(m_channelIndex, queued->data.size());
        m_queuedBytes -= queued->data.size();
        queued = m_sendQueue.erase(queued);
    }
    m_sendWindow.noteConfirmed(taken);
    if (m_adaptive)
        m_adaptive->sender.confirmed(taken, nowUs());
}

void CComChannel::deliver(const CComPacket& packet)
{
    m_channelsState->addReceivedBytes(m_channelIndex, packet.data.size());
    m_received.append(packet.data.constData(), packet.data.size()); // a view as a rule: not to be shared
    ++m_expectedNumber;
}

QByteArray CComChannel::takeReceived(int maxSize)
{
    if (maxSize >= m_received.size())
        return std::exchange(m_received, QByteArray());
    const QByteArray taken = m_received.left(std::max(0, maxSize));
    m_received.remove(0, taken.size());
    return taken;
}

void CComChannel::resending()
{
    if (m_adaptive) {
        sendConfirmation(); // first, so that it does not wait behind data
        sendAdaptively();
        return;
    }
    sendQueue();
    sendConfirmation(); // also when the walk over the queue has stopped
}

int CComChannel::newPacketsLimit() const
{
    const int limit = m_sendWindow.newPacketsLimit(m_sendQueue);
    if (m_adaptive) // a host may write what was offered before the packets became small
        return std::min(limit, SendWindow::maxAheadOfLag);
    const int packetSize = currentPacketSize(); // what a host offers to one write
    return std::min(limit,
                    SendWindow::writeLimit(packetSize, linkrules::blockSize(packetSize, maxBytesToWriteAtOnce())));
}

void CComChannel::sendQueue()
{
    const int maxBytesToWrite = maxBytesToWriteAtOnce();
    const int resendMs = resendIntervalMs();
    const qint64 nowMs = QDateTime::currentMSecsSinceEpoch();
    const int newLimit = newPacketsLimit();
    const quint8 oldest = m_sendQueue.isEmpty() ? m_nextNumber : m_sendQueue.first().number;
    quint8 previous = oldest;
    int ahead = 0; // of the oldest; does not wrap, however long the queue
    for (CComPacket& packet : m_sendQueue) {
        ahead += linkrules::stepsFrom(previous, packet.number);
        previous = packet.number;
        const bool isRepeat = packet.sentTime != 0;
        if (isRepeat ? !linkrules::isRepeatDue(nowMs, packet.sentTime, resendMs) : ahead > newLimit)
            continue;
        if (!linkrules::hasRoom(maxBytesToWrite, m_port->bytesToWrite(), packet.bytes.size())) {
            waitForWritten(*m_port, isRepeat ? repeatRoomWaitMs : newPacketRoomWaitMs);
            return;
        }
        if (isRepeat)
            m_sendWindow.noteRepeated(packet.number, oldest);
        else
            m_sendWindow.noteSent(packet.number, oldest);
        packet.sentTime = nowMs;
        m_port->write(packet.bytes);
        waitForWritten(*m_port, writtenWaitMs);
        logSent(packet, isRepeat);
    }
}

void CComChannel::sendAdaptively()
{
    AdaptiveSender& sender = m_adaptive->sender;
    for (;;) {
        const AdaptiveSender::Queue queue{m_sendQueue, newPacketsLimit(), m_nextNumber};
        const AdaptiveSender::Step step = sender.next(queue, nowUs(), pendingOutput(*m_port));
        if (step.kind == AdaptiveSender::Step::Nothing)
            return;
        takeStep(step);
    }
}

void CComChannel::takeStep(const AdaptiveSender::Step& step)
{
    if (step.kind == AdaptiveSender::Step::SendEmpty)
        queuePacket(QByteArray());
    const bool isRepeat = step.kind == AdaptiveSender::Step::Repeat;
    const auto isMeant = [&](const CComPacket& packet) {
        return isRepeat ? packet.number == step.number : packet.sentTime == 0;
    };
    const auto packet = std::find_if(m_sendQueue.begin(), m_sendQueue.end(), isMeant);
    const quint8 oldest = m_sendQueue.first().number;
    if (isRepeat)
        m_sendWindow.noteRepeated(packet->number, oldest);
    else
        m_sendWindow.noteSent(packet->number, oldest);
    packet->sentTime = QDateTime::currentMSecsSinceEpoch();
    m_port->write(packet->bytes);
    m_port->flush();
    m_adaptive->sender.sent(step, packet->number, packet->bytes.size());
    logSent(*packet, isRepeat);
}

bool CComChannel::hasUnsent() const
{
    return !m_sendQueue.isEmpty() && m_sendQueue.last().sentTime == 0;
}

bool CComChannel::isConfirmationDue() const
{
    static const int confirmationIntervalMs = CSettings().detailsTransportComConfirmationInterval();
    if (linkrules::isConfirmationDue(m_confirmationTimer.elapsed(), m_toConfirm.size(), confirmationIntervalMs))
        return true;
    return m_adaptive && !m_toConfirm.isEmpty() && m_adaptive->confirmations.isDue(hasUnsent(), pendingOutput(*m_port));
}

void CComChannel::sendConfirmation()
{
    if (!isConfirmationDue())
        return;
    CComPacket packet;
    packet.type = ConfirmationPacket;
    QSet<quint8> numbers = m_toConfirm;
    if (m_adaptive) {
        const bool isWayIdle = !hasUnsent() && pendingOutput(*m_port) == 0;
        numbers = m_adaptive->confirmations.take(m_toConfirm, isWayIdle, m_adaptive->sender.noise().perByte());
    }
    packet.data = linkrules::confirmationPayload(numbers);
    packet.makePacket();
    m_port->write(packet.bytes);
    m_port->flush();
    if (m_adaptive)
        m_adaptive->sender.written(packet.bytes.size());
    else
        waitForWritten(*m_port, writtenWaitMs);
    if (CSettings().debugTransportComPackets()) {
        debug(label(),
              QStringLiteral("Запись пакета с подтверждением - номера %1").arg(linkrules::numbersText(packet.data)),
              DebugAlways, DebugFlagNone);
    }
    logWritten(packet.bytes);
    m_toConfirm.clear();
    m_confirmationTimer.restart();
}

void CComChannel::discardInput()
{
    QElapsedTimer timer;
    timer.start();
    int leftMs = readWaitMs;
    while (leftMs > 0 && waitForInput(*m_port, leftMs)) {
        m_port->readAll();
        leftMs = readWaitMs - static_cast<int>(timer.elapsed());
    }
    m_port->readAll();
}

bool CComChannel::waitForOk(int timeoutMs)
{
    QByteArray input;
    QElapsedTimer timer;
    timer.start();
    while (timer.elapsed() < timeoutMs) {
        waitForInput(*m_port, readWaitMs);
        input.append(m_port->readAll());
        for (int end = input.indexOf('\n'); end >= 0; end = input.indexOf('\n')) {
            const QByteArray line = input.left(end + 1).replace('\r', QByteArray()).toUpper();
            if (line == "OK\n")
                return true;
            input.remove(0, end + 1);
        }
    }
    return false;
}
