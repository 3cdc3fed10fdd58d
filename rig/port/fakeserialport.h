// A serial port in memory: what a test injects can be read from it, what the code under
// test writes is kept for the test. Always open. A wait for what does not happen sleeps.
#pragma once

#include <QByteArray>
#include <QList>
#include <QSerialPort>

#include <functional>
#include <utility>

namespace rig {

class FakeSerialPort : public QSerialPort
{
public:
    FakeSerialPort();

    // Bytes that arrive now.
    void inject(const QByteArray& bytes) { m_arrived += bytes; }

    // Bytes that arrive while the code under test next waits for input.
    void injectOnWait(const QByteArray& bytes) { m_arrivingOnWait += bytes; }

    // How many more bytes the line takes; what goes beyond stays pending. Negative (the
    // start): no limit.
    void setRoom(int bytes);

    // What has gone to the line since the last call.
    QByteArray takeWritten();

    // Whether exactly these bytes have gone to the line since the last look.
    bool expectWritten(const QByteArray& bytes) { return takeWritten() == bytes; }

    // Called with each chunk that goes to the line, instead of keeping it.
    void setLine(std::function<void(const QByteArray&)> line) { m_line = std::move(line); }

    // Called each time after bytes were read.
    void setAfterRead(std::function<void()> afterRead) { m_afterRead = std::move(afterRead); }

    // Every wait that was asked for, in ms, in order.
    QList<int> takeReadWaits() { return std::exchange(m_readWaits, {}); }
    QList<int> takeWriteWaits() { return std::exchange(m_writeWaits, {}); }

    qint64 bytesAvailable() const override { return m_arrived.size(); }
    qint64 bytesToWrite() const override { return m_pending.size(); }
    bool canReadLine() const override { return m_arrived.contains('\n'); }
    bool waitForReadyRead(int msecs) override;
    bool waitForBytesWritten(int msecs) override;
    void close() override {}

protected:
    qint64 readData(char* data, qint64 maxSize) override;
    qint64 readLineData(char* data, qint64 maxSize) override;
    qint64 writeData(const char* data, qint64 size) override;

private:
    void drain();

    QByteArray m_arrived;
    QByteArray m_arrivingOnWait;
    QByteArray m_pending; // written, but not yet taken by the line
    QByteArray m_written; // taken by the line
    int m_room = -1;
    std::function<void(const QByteArray&)> m_line;
    std::function<void()> m_afterRead;
    QList<int> m_readWaits;
    QList<int> m_writeWaits;
};

} // namespace rig
