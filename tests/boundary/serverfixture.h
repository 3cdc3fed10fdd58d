// A server with recording host objects around it, and its settings in the test's root.
#pragma once

#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"
#include "rig/calllog.h"
#include "rig/deadline.h"
#include "rig/fakehost.h"
#include "rig/server/testedserver.h"

#include <QMutex>
#include <QString>
#include <QStringList>
#include <QThread>
#include <gtest/gtest.h>

#include <functional>
#include <memory>

// What the sessions of a test have in common; used from the workers' threads.
class SessionFactory : public CAbstractProtocolFactory
{
public:
    // Keeps sessions of terminated workers reachable: nobody may delete them.
    ~SessionFactory() override;

    CAbstractProtocol* createProtocol(CChannel* channel) override;

    // The name that every peer tells at once; none tells any when it is empty.
    void setPeerName(const QString& name);
    // Called in the worker's thread, from its event loop, when a session has begun.
    void setWhenRunning(std::function<void()> function);

    // Of the sessions that run now.
    int running() const;
    QStringList channelNames() const; // sorted
    QStringList keptChannelNames() const; // those whose keepAlive is set; sorted

private:
    friend class Session;

    mutable QMutex m_mutex;
    QString m_peerName;
    std::function<void()> m_whenRunning;
    QList<CAbstractProtocol*> m_sessions; // not owned
};

// Ends when it is asked to; carries nothing.
class Session : public CAbstractProtocol
{
public:
    Session(CChannel* ownedChannel, SessionFactory* factory);
    ~Session() override;
    void start() override;
    void stop() override;

private:
    SessionFactory* m_factory; // not owned
};

// Records the calling thread of each entry beside the common log.
class NotingChannelsState : public rig::RecordingChannelsState
{
public:
    using RecordingChannelsState::RecordingChannelsState;
    int addChannel(int type, const QString& name, const QString& state) override;
    void setState(int id, const QString& text) override;

    std::function<void()> whenAdding; // before anything is recorded
    std::function<void(int, const QString&)> whenSetting; // after it has been recorded
};

class ServerTest : public testing::Test
{
protected:
    void SetUp() override;
    void TearDown() override;

    // The settings file of the channel, and lines of the group "Details" of settings.ini.
    void writeSettings(const QList<TestPort>& ports, int packetSize = 1024);
    void writeSettingsBytes(const QByteArray& bytes);
    void writeDetails(const QStringList& lines);

    // Moves the server into a thread of its own with an event loop.
    void moveServerToThread();
    // Runs function in the server's thread and waits for it.
    void inServerThread(const std::function<void()>& function);

    void stopAndDelete();

    QString settingsPath() const; // channelCom.conf
    QString detailsText() const; // settings.ini as it stands
    QString logText() const; // all log files
    // Whether the log has a line of the server with exactly this text.
    bool logHas(const QString& text) const;
    QString recordOf(const QString& text) const; // an event of the server as the call log shows it
    QString stateOf(const QString& text) const;

    rig::CallLog log;
    NotingChannelsState channelsState{&log};
    rig::RecordingJournal journal{&log};
    SessionFactory* factory = nullptr; // owned by the server
    std::unique_ptr<TestedServer> server;
    std::unique_ptr<QThread> thread;
    // Signals of the server, as "connected <name> <id>", in the order of emission.
    rig::CallLog emitted;
};
