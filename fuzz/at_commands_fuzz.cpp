// The exchange's modem: whatever its program writes and its line does, it dials only when it may,
// and only numbers that can be dialled; its answers are not too long; a connection has a carrier.
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "sim/line/moments.h"
#include "sim/modem/modem.h"

#include <QByteArray>

#include <cstdint>

using fuzz::require;
using namespace sim;

namespace {

// A line of 255 characters may hold 127 questions of 90 bytes each, and "A/" repeats it.
constexpr int mostAnswered = 32 * 1024;

constexpr int eventMark = 0xFF; // the next byte is not written by the program, it selects an event

class CheckingHost : public ModemHost
{
public:
    void toProgram(const QByteArray& bytes) override { answered += bytes.size(); }
    void toLine(char) override { ++carried; }

    void dial(const QString& number, qint64 pauseNs) override
    {
        require(!isCalling, "one call at a time");
        require(number.size() <= Modem::maxCommandLength, "a number is no longer than a command line");
        for (const QChar symbol : number)
            require(QStringLiteral("0123456789ABCD*#").contains(symbol), "only what can be dialled is dialled");
        require(pauseNs >= 0, "a pause is not negative");
        isCalling = true;
    }
    void answer() override
    {
        require(!isCalling, "one call at a time");
        isCalling = true;
    }
    void hangUp() override { isCalling = false; }
    void setCarrierDetect(bool raised) override { carrier = raised; }
    void setRingIndicator(bool) override {}
    void trace(const QString&) override {}

    qint64 answered = 0;
    qint64 carried = 0;
    bool isCalling = false;
    bool carrier = false;
};

class Terminal
{
public:
    explicit Terminal(int choice)
        : m_modem(&m_host, QStringLiteral("101"), choice % 2 == 0 ? RingStyle::Text : RingStyle::Pin)
    {
        m_modem.powerOn();
    }

    void run(fuzz::Input& input)
    {
        while (!input.atEnd()) {
            const int byte = input.byte();
            m_host.answered = 0;
            m_host.carried = 0;
            const bool wasConnected = m_modem.isConnected();
            const bool wasData = m_modem.state() == ModemState::Data;
            if (byte == eventMark)
                happen(input.byte());
            else
                m_modem.byteFromProgram(static_cast<char>(byte), m_nowNs);
            require(m_host.answered <= mostAnswered, "an answer is in proportion");
            require(m_host.carried == 0 || (wasData && m_host.carried == 1), "only data goes to the line");
            require(wasConnected || !m_modem.isConnected() || byte == eventMark, "no key alone connects");
            check();
        }
    }

private:
    void happen(int choice)
    {
        switch (choice % 12) {
        case 0: m_modem.ring(m_nowNs); break;
        case 1: m_modem.ringPauses(); break;
        case 2: m_modem.ringingStopped(); break;
        case 3:
            if (isAwaitingCall())
                m_modem.connected(300 * (1 + choice), m_nowNs);
            break;
        case 4:
        case 5:
            if (isAwaitingCall()) {
                m_host.isCalling = false;
                m_modem.callFailed(static_cast<CallFailure>(choice / 12 % 4));
            }
            break;
        case 6:
            if (m_modem.isConnected()) {
                m_host.isCalling = false;
                m_modem.carrierLost();
            }
            break;
        case 7:
            m_modem.setDtr(false);
            m_modem.dtrDropped(m_nowNs);
            break;
        case 8: m_modem.setDtr(true); break;
        case 9:
            m_nowNs += choice * 20 * nsPerMs;
            m_modem.advance(m_nowNs);
            break;
        case 10: m_nowNs += choice * nsPerMs; break;
        case 11:
            m_host.isCalling = false;
            m_modem.powerOn();
            break;
        }
    }

    bool isAwaitingCall() const
    {
        return m_modem.state() == ModemState::Dialling || m_modem.state() == ModemState::Answering;
    }

    void check()
    {
        require(m_host.isCalling == (isAwaitingCall() || m_modem.isConnected()),
                "the exchange and the modem agree whether there is a call");
        require(m_host.carrier || !m_modem.isConnected(), "a connection shows a carrier");
        require(m_modem.nextEventNs() < 0 || m_modem.state() == ModemState::Data, "only an escape is waited for");
    }

    CheckingHost m_host;
    Modem m_modem;
    qint64 m_nowNs = 0;
};

} // namespace

extern "C" __attribute__((visibility("default"))) int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    fuzz::Input input(data, size);
    Terminal(input.byte()).run(input);
    return 0;
}
