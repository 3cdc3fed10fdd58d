// The calls of an exchange: dialling, ringing, training, connected, ended. Knows no port, no
// thread and no clock: time is handed in, as nanoseconds since the exchange was made.
#pragma once

#include "sim/line/callstatistics.h"
#include "sim/line/linesettings.h"
#include "sim/modem/callparty.h"

#include <QString>
#include <QVector>

#include <memory>
#include <vector>

namespace sim {

struct CallSettings
{
    LineSettings line; // of every call, until changeLine()
    int ringIntervalMs = 5000; // from the beginning of one ring to that of the next
    int ringLengthMs = 1000; // how long RI stands, for modems that raise it
    int noAnswerAfterMs = 60000; // of ringing; S7 of the caller may make it shorter
    int trainingMs = 0; // from the answer to CONNECT
};

// What the calls ask of the exchange.
class CallsHost
{
public:
    virtual ~CallsHost() = default;

    // Null when nobody has the number.
    virtual CallParty* partyAt(const QString& number) = 0;
    // modem: whom it happened to; 0: the exchange itself.
    virtual void tell(int modem, const QString& text) = 0;
};

class Calls
{
public:
    // host: not owned. Parties are not owned either; each must hang up before it is deleted.
    Calls(CallsHost* host, const CallSettings& settings);
    ~Calls();

    // What the parties ask for.
    void dial(CallParty& caller, const QString& number, qint64 pauseNs, qint64 nowNs);
    void answer(CallParty& called, qint64 nowNs);
    void hangUp(CallParty& party, qint64 nowNs);

    // Rings a party without a caller; answering finds no carrier. times: -1 for until it is
    // answered. False when the party has a call already.
    bool ringFromNobody(CallParty& called, int times, qint64 nowNs);
    // False when the party has no connection.
    bool dropCarrier(const CallParty& party, const QString& why, qint64 nowNs);
    void endAll(const QString& why, qint64 nowNs);

    // Does what is due.
    void advance(qint64 nowNs);
    // When advance() will next have something to do; -1: not at all.
    qint64 nextEventNs() const;
    // Whether the party's data waits until its line has the time for it.
    bool isPaced(const CallParty& party) const;
    // To be called when isNoisy() of a party changed.
    void updateNoise();

    // The line of calls dialled later.
    const LineSettings& line() const { return m_line; }
    // See LineSettings::change().
    bool changeLine(const QString& text, QString* error);

    // In the order of their ends.
    const QVector<CallStatistics>& ended() const { return m_ended; }
    // How many are going on, with those that only ring.
    int activeCount() const;

private:
    struct Call;
    using CallPtr = std::unique_ptr<Call>;

    Call* callOf(const CallParty& party) const;
    Call* callRinging(const CallParty& party) const;
    void place(Call& call, qint64 nowNs);
    void connect(Call& call, qint64 nowNs);
    void fail(Call& call, CallFailure failure, const QString& why, qint64 nowNs);
    void loseCarrier(Call& call, const QString& why, qint64 nowNs);
    void end(Call& call, const QString& why, qint64 nowNs);
    void advanceCall(Call& call, qint64 nowNs);
    void advanceRinging(Call& call, qint64 nowNs);
    void advanceConnected(Call& call, qint64 nowNs);
    void advanceEnding(Call& call, qint64 nowNs);

    CallsHost* m_host; // not owned
    const CallSettings m_settings;
    LineSettings m_line;
    std::vector<CallPtr> m_calls;
    QVector<CallStatistics> m_ended;
    int m_dialledCount = 0;
    int m_droppedCount = 0; // by the line, since the line was changed
};

} // namespace sim
