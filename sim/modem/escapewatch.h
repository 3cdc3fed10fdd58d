// Watches the data of a connection for the escape to command mode: three escape bytes with a
// guard time before and after them. Time is handed in, as nanoseconds of any one clock.
#pragma once

#include <QtGlobal>

namespace sim {

class EscapeWatch
{
public:
    // A connection begins or goes on.
    void start(qint64 nowNs);
    void reset() { m_count = 0; }
    // One byte of data. escapeByte: S2; above 127 there is no escape.
    void add(char byte, int escapeByte, qint64 guardNs, qint64 nowNs);
    // When the escape takes effect unless another byte comes; -1: there is none.
    qint64 dueNs(qint64 guardNs) const;

private:
    int m_count = 0; // of escape bytes in a row, the first after a guard time
    qint64 m_lastByteNs = 0;
};

} // namespace sim
