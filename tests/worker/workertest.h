// A port worker in front of a scripted modem, with everything around it recorded.
#pragma once

#include "com/worker/ccomthread.h"
#include "plugin/api/cchannelserver.h"
#include "rig/calllog.h"
#include "rig/fakehost.h"
#include "tests/worker/modemscript.h"
#include "tests/worker/scriptedsession.h"

#include <QStringList>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <string>

// Settings of the process, before anything reads them: lines such as
// "transportComOpenInterval=100" of the group Details. Unless they say otherwise a modem has
// 20 s to answer its check, so that a test on a busy machine may be late. A test that does
// not call it gets just that.
void writeDetails(const QStringList& lines);

// A journal that also lets the test act at a certain record, in the thread that writes it.
class HookedJournal : public rig::RecordingJournal
{
public:
    using RecordingJournal::RecordingJournal;
    void addRecord(int kind, const QString& source, const QString& text) override;

    std::function<void(const QString& text)> onRecord; // set before the worker starts
};

// A channels table that also lets the test act when the port leaves it, in the thread that
// takes it out.
class HookedChannelsState : public rig::RecordingChannelsState
{
public:
    using RecordingChannelsState::RecordingChannelsState;
    void removeChannel(int id) override;

    std::function<void()> onRemove; // set before the worker starts
};

// The base of all servers is all that a worker knows of its own.
class BareServer : public CChannelServer
{
public:
    bool hasFreeChannel() const override { return false; }
    bool isHardwareOn() const override { return false; }
    bool canCheckOnline() const override { return false; }
    void connectToAbonent(const QString&, const QByteArray&) override {}
    void disconnectFromAbonent(const QString&, int) override {}
    void keepAliveConnection(int) override {}
};

struct LogLine
{
    int timeMs; // since midnight
    QString text;
};
// What stands in the log file under this label, in order.
QList<LogLine> logLines(const QString& label = QStringLiteral("CComThread"));
QStringList logTexts(const QString& label = QStringLiteral("CComThread"));
// Milliseconds from one time of the day to a later one.
int logTimeBetween(const LogLine& earlier, const LogLine& later);

class WorkerTest : public testing::Test
{
protected:
    static constexpr int connectionId = 7;

    WorkerTest();
    ~WorkerTest() override;

    // The usual settings of the modem's port: 9600 bit/s, 8N1, no flow control.
    ComPortSettings usualSettings() const;

    // Makes and starts the worker.
    void start() { start(usualSettings()); }
    void start(const ComPortSettings& settings);

    // Answers each "AT" until the line is free.
    testing::AssertionResult answerChecks();
    // Switches the modem on, starts the worker and answers its "AT"; events so far are forgotten.
    void startFree() { startFree(usualSettings()); }
    void startFree(const ComPortSettings& settings);
    // Further, up to a written "ATD" and "ATA".
    void startOutgoing(const QString& name = QStringLiteral("A"), const QString& number = QStringLiteral("123"));
    void startIncoming();
    // Further, up to a running session; events so far are forgotten.
    void startOutgoingSession(const QString& name = QStringLiteral("A"));
    void startIncomingSession();

    // The modem answers the hang-up, and is switched off, so that the port, opened again,
    // waits for it.
    void completeReset();

    // Asks the worker to stop and waits for it without running events, as the server does.
    testing::AssertionResult stopAndWait(int deadlineMs = 10000);

    bool waitForState(CComThread::State state);
    // Runs the slot as an error signal of the port would.
    void raiseError(QSerialPort::SerialPortError code);

    // Everything that happened, in order: "add <text>", "state <text>", "journal <text>",
    // "error <text>" (a journal record of an error), "remove", "connected <name> <id>",
    // "notConnected <name>", "disconnected <name> <id> <useful>", and the protocol's entries.
    QStringList events() const;
    void forgetEvents() { log.clear(); }
    // Waits until that many events are there, and compares.
    void expectEvents(const QStringList& expected);
    bool waitForEvent(const QString& event, int times = 1);

    rig::CallLog log;
    HookedChannelsState channelsState{&log};
    HookedJournal journal{&log};
    BareServer server;
    ScriptedFactory* factory; // owned by the server
    ModemScript modem;
    std::unique_ptr<CComThread> worker;
};

// Texts of lists, one a line, so that a failed comparison shows the difference.
std::string joined(const QStringList& lines);

// What the host sees of a port from its start to the free line.
QStringList eventsOfStart();
// What it sees of the hang-up and of opening again, up to waiting for the device.
QStringList eventsOfReopening();
