// The reliable byte channel over a connected serial port: numbered packets, confirmations
// and repeats. docs/link-protocol.md tells the life of a packet.
#pragma once

#include "com/link/adaptivesender.h"
#include "com/link/ccompacket.h"
#include "com/link/confirmationpace.h"
#include "com/link/sendwindow.h"
#include "plugin/api/cchannel.h"

#include <QByteArray>
#include <QElapsedTimer>
#include <QList>
#include <QSet>

#include <memory>

class CAbstractChannelsState;
class QSerialPort;

// Made by a port worker for one connection and used from that worker's thread only. It
// has no thread and no timer of its own: all its work, sending too, happens within the
// calls of read().
class CComChannel : public CChannel
{
public:
    // port: open and connected. state: gets the traffic, under channelIndex. Both belong to the
    // caller and must outlive the channel.
    CComChannel(QSerialPort* port, CAbstractChannelsState* state, int channelIndex);

    // The same, whatever Details/transportComAdaptive says.
    CComChannel(QSerialPort* port, CAbstractChannelsState* state, int channelIndex, bool isAdaptive);

    // Hangs up with "+++" and "ATH". Blocks for one second of guard time and up to
    // Details/transportComResetTimeout, and leaves the channel not connected.
    void disconnectFromAbonent() override;

    // Whether the modem shows a carrier.
    bool isConnected() override;

    // Cuts data into packets and queues them; the port is not touched.
    void write(const QByteArray& data) override;

    // Reads the port, takes in packets, sends what is due, and returns up to maxSize
    // bytes of what was received in order. Blocks for some tens of milliseconds at most
    // for each packet written. Works after a hang-up too: then the modem receives
    // what it sends.
    QByteArray read(int maxSize) override;

    // The most to give to one write(), or 0 while the queue is full.
    int idealBlockSize() override;

private:
    void readPort();
    void computePackets();
    void computePacket(const CComPacket& packet);
    void computeData(const CComPacket& packet);
    void computeConfirmation(const CComPacket& packet);
    void deliver(const CComPacket& packet);
    QByteArray takeReceived(int maxSize);

    void resending();
    void sendQueue();
    void sendAdaptively();
    void takeStep(const AdaptiveSender::Step& step);
    void sendConfirmation();
    bool isConfirmationDue() const;
    bool hasUnsent() const;
    void queuePacket(const QByteArray& payload);
    int newPacketsLimit() const;
    int blockSize() const;
    qint64 nowUs() const { return m_clock.nsecsElapsed() / 1000; }

    void discardInput();
    bool waitForOk(int timeoutMs);

    QSerialPort* m_port; // not owned
    CAbstractChannelsState* m_channelsState; // not owned
    int m_channelIndex;
    bool m_connected = true;
    QByteArray m_received; // in order, waiting for read()
    QByteArray m_receiveBuffer; // from the port, not yet cut into packets
    QList<CComPacket> m_sendQueue; // oldest first, until confirmed
    QList<CComPacket> m_held; // arrived ahead of a gap
    quint8 m_nextNumber = 1; // of the next data packet written
    quint8 m_expectedNumber = 1; // of the next data packet to deliver
    int m_queuedBytes = 0; // payload bytes in the send queue
    QSet<quint8> m_toConfirm; // received and not yet confirmed
    QElapsedTimer m_confirmationTimer; // since the last confirmation, at first since construction
    SendWindow m_sendWindow;

    // With Details/transportComAdaptive only.
    struct Adaptive
    {
        Adaptive(const QString& port, const AdaptiveSender::Settings& settings);
        ~Adaptive();
        const QString portName;
        AdaptiveSender sender;
        ConfirmationPace confirmations;
    };
    std::unique_ptr<Adaptive> m_adaptive;
    QElapsedTimer m_clock; // of it; steady, since construction
};
