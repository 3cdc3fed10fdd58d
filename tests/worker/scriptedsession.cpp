#include "tests/worker/scriptedsession.h"

#include <QMetaObject>

ScriptedProtocol::ScriptedProtocol(CChannel* ownedChannel, rig::CallLog* log, bool endsOnStop)
    : CAbstractProtocol(ownedChannel), m_log(log), m_endsOnStop(endsOnStop)
{
}

ScriptedProtocol::~ScriptedProtocol()
{
    if (onDelete)
        onDelete();
    m_log->add(QStringLiteral("protocol deleted keepAlive=%1").arg(__atomic_load_n(&keepAlive, __ATOMIC_RELAXED)));
}

void ScriptedProtocol::start()
{
    CAbstractProtocol::start();
    m_log->add(
        QStringLiteral("protocol start %1|%2|%3").arg(remoteAbonentName, remoteAbonentNameFiltered, channelName));
    if (onStart)
        onStart(this);
}

void ScriptedProtocol::stop()
{
    m_log->add(QStringLiteral("protocol stop"));
    if (m_endsOnStop)
        finish(false);
}

void ScriptedProtocol::tellName(const QString& name)
{
    QMetaObject::invokeMethod(
        this,
        [this, name] {
            remoteAbonentName = name;
            emit remoteAbonentNameChanged(name);
        },
        Qt::QueuedConnection);
}

void ScriptedProtocol::forgetName()
{
    QMetaObject::invokeMethod(
        this, [this] { remoteAbonentName.clear(); }, Qt::QueuedConnection);
}

void ScriptedProtocol::finish(bool isUseful)
{
    QMetaObject::invokeMethod(
        this,
        [this, isUseful] {
            wasUseful = isUseful;
            emit finished();
        },
        Qt::QueuedConnection);
}

CAbstractProtocol* ScriptedFactory::createProtocol(CChannel* channel)
{
    ++m_created;
    if (onCreate)
        onCreate();
    if (refuses)
        return nullptr;
    auto* const protocol = new ScriptedProtocol(channel, m_log, protocolEndsOnStop);
    protocol->onStart = onStart;
    m_protocol = protocol;
    return protocol;
}
