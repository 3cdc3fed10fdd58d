// The modem's side of a serial port: a pty whose slave a program opens as its port, with
// modem control signals and a driver's buffer of bounded depth where the program has the
// ptylines object linked or preloaded.
//
// Not thread-safe: one thread at a time uses an endpoint. What the program's side sees of
// it (signals, room) takes effect at once, in any thread and process.
#pragma once

#include <QByteArray>
#include <QString>

#include <cstdint>

namespace sim {

struct SignalRow;

enum ModemSignal
{
    SignalDsr = 1,
    SignalDcd = 2,
    SignalRi = 4,
    SignalCts = 8
};
enum ProgramSignal
{
    SignalDtr = 1,
    SignalRts = 2
};

class PtyEndpoint
{
public:
    static constexpr int defaultDepthBytes = 4096;

    // Creates a pty in raw mode, all signals down. With linkPath also a symbolic link to the
    // slave, which stays the same through unplug() and plugIn(); a link that is already
    // there is replaced, anything else is left. Failure: isOpen() is false and errorString() says why.
    explicit PtyEndpoint(const QString& linkPath = {});
    ~PtyEndpoint();
    PtyEndpoint(const PtyEndpoint&) = delete;
    PtyEndpoint& operator=(const PtyEndpoint&) = delete;

    bool isOpen() const { return m_master >= 0; }
    QString errorString() const { return m_errorString; }
    // What a program opens: the link if there is one, else the slave itself.
    QString portPath() const;
    // For poll(); -1 while unplugged. Non-blocking. Owned by the endpoint.
    int masterFd() const { return m_master; }

    // Raises exactly these signals (an or of ModemSignal). All are down while unplugged.
    void setModemSignals(int raised);
    int modemSignals() const;
    // The signals that the program has raised (an or of ProgramSignal).
    int programSignals() const;
    // Whether the program has ever set a signal; one that cannot (a plain shell) never does.
    bool programSetsSignals() const;
    // How often DTR went from raised to dropped since the pty was plugged in.
    unsigned dtrDrops() const;
    // Speed that the program set, in bit/s.
    int baudRate() const;

    // What the program has written, at most maxBytes of it, or all; never blocks. What is
    // not read stays in the driver's buffer and counts against its depth.
    QByteArray read(qint64 maxBytes = -1);
    // Towards the program. Bytes accepted: fewer than given when the program does not
    // read, -1 while unplugged; never blocks.
    qint64 write(const QByteArray& data);
    // How much a program may have outstanding; 4096 unless set. Stays through plugIn().
    void setDepth(int bytes);
    // At what pace the modem's side will take bytes, so that a program that waits for room
    // need not look all the time; 0: not known. Forgotten by plugIn().
    void setDrainRate(int bytesPerS);
    // Bytes that the program has written and read() has not yet taken.
    qint64 bytesFromProgram() const;
    // Whether read() would give something; also for a program whose bytes are not counted.
    bool hasInput() const;

    // The device vanishes: the link is removed, a program's open port fails.
    void unplug();
    // It comes back under the same link, all signals down; false as for the constructor.
    bool plugIn();

private:
    bool fail(const QString& what); // with errno
    bool failFor(const QString& what, const QString& why);
    bool openPty();
    bool claimRow();
    bool makeLink();
    void closePty();
    qint64 readMaster(char* data, qint64 maxBytes);
    void countTaken(qint64 bytes);
    void dropDiscarded();
    void forgetLostReservation();

    QString m_linkPath;
    QString m_slavePath;
    QString m_errorString;
    int m_master = -1;
    int m_slave = -1; // held, or the master would fail whenever the program closes the port
    int m_depth = defaultDepthBytes;
    SignalRow* m_row = nullptr; // not owned: part of the table
    std::uint64_t m_idleWritten = 0;
    std::int64_t m_idleSinceMs = -1;
};

} // namespace sim
