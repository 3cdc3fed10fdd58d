#include "tests/worker/modemscript.h"

#include "rig/deadline.h"
#include "rig/testroot.h"

using rig::waitFor;

ModemScript::ModemScript(const QString& name) : m_endpoint(rig::installRoot() + QLatin1Char('/') + name)
{
    EXPECT_TRUE(m_endpoint.isOpen()) << m_endpoint.errorString().toStdString();
}

testing::AssertionResult ModemScript::expectWritten(const QByteArray& expected)
{
    waitFor([&] { return written().size() >= expected.size(); });
    const QByteArray found = m_written.left(expected.size());
    m_written.remove(0, expected.size());
    if (found == expected)
        return testing::AssertionSuccess();
    return testing::AssertionFailure() << "written: \"" << found.toPercentEncoding(" +").constData()
                                       << "\", expected: \"" << expected.toPercentEncoding(" +").constData() << '"';
}

QByteArray ModemScript::written()
{
    m_written += m_endpoint.read();
    return m_written;
}

void ModemScript::reply(const QByteArray& bytes)
{
    EXPECT_EQ(m_endpoint.write(bytes), bytes.size());
}

bool ModemScript::flood(const QByteArray& bytes)
{
    int done = 0;
    while (done < bytes.size()) {
        qint64 count = 0;
        const bool isTaken = waitFor([&] { return (count = m_endpoint.write(bytes.mid(done, 4096))) > 0; });
        if (!isTaken)
            return false;
        done += static_cast<int>(count);
    }
    return true;
}

void ModemScript::setLine(sim::ModemSignal line, bool on)
{
    m_endpoint.setModemSignals(on ? m_endpoint.modemSignals() | line : m_endpoint.modemSignals() & ~line);
}
