// The host's protocol and its factory, told by the test what to do.
#pragma once

#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"
#include "rig/calllog.h"

#include <QMutex>

#include <atomic>
#include <functional>

// Records into the log:
//   "protocol start <name>|<filtered name>|<channel name>"
//   "protocol stop"
//   "protocol deleted keepAlive=<0|1>"
class ScriptedProtocol : public CAbstractProtocol
{
public:
    ScriptedProtocol(CChannel* ownedChannel, rig::CallLog* log, bool endsOnStop);
    ~ScriptedProtocol() override;

    void start() override;
    void stop() override;

    // From any thread; done in the protocol's own. The peer has told its name.
    void tellName(const QString& name);
    // The host's protocol has lost the peer's name again.
    void forgetName();
    // The session is over.
    void finish(bool isUseful);

    std::function<void(ScriptedProtocol*)> onStart;
    std::function<void()> onDelete; // within the destructor

private:
    rig::CallLog* m_log; // not owned
    const bool m_endsOnStop;
};

class ScriptedFactory : public CAbstractProtocolFactory
{
public:
    explicit ScriptedFactory(rig::CallLog* log) : m_log(log) {}

    CAbstractProtocol* createProtocol(CChannel* channel) override;

    // The latest protocol made; the test must know that it still lives.
    ScriptedProtocol* protocol() const { return m_protocol.load(); }
    int created() const { return m_created.load(); }

    // Set before the call comes.
    bool refuses = false;
    bool protocolEndsOnStop = true;
    std::function<void()> onCreate;
    std::function<void(ScriptedProtocol*)> onStart;

private:
    rig::CallLog* m_log; // not owned
    std::atomic<ScriptedProtocol*> m_protocol{nullptr};
    std::atomic<int> m_created{0};
};
