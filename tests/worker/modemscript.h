// The modem of a test: a pty with modem lines, played by the test itself, step by step.
#pragma once

#include "sim/pty/ptyendpoint.h"

#include <QByteArray>
#include <QString>
#include <gtest/gtest.h>

class ModemScript
{
public:
    // The port that the worker opens is a link of this name in the installation root.
    explicit ModemScript(const QString& name = QStringLiteral("modem"));

    sim::PtyEndpoint& endpoint() { return m_endpoint; }
    QString portPath() const { return m_endpoint.portPath(); }

    void setDsr(bool on) { setLine(sim::SignalDsr, on); }
    void setDcd(bool on) { setLine(sim::SignalDcd, on); }
    void setRi(bool on) { setLine(sim::SignalRi, on); }

    // Waits until the program has written as many bytes as expected has, and takes them;
    // succeeds if they are the expected ones.
    testing::AssertionResult expectWritten(const QByteArray& expected);
    // What the program has written and no expectWritten() has taken.
    QByteArray written();

    void reply(const QByteArray& bytes);
    // As reply(), in pieces as the program takes them; false when it stops taking them.
    bool flood(const QByteArray& bytes);

private:
    void setLine(sim::ModemSignal line, bool on);

    sim::PtyEndpoint m_endpoint;
    QByteArray m_written;
};
