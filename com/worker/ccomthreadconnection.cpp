// The port worker's part that runs a connection, from "CONNECT " to the end of the session.
#include "com/link/ccomchannel.h"
#include "com/worker/ccomthread.h"
#include "com/worker/portsession.h"
#include "common/functiondebug.h"
#include "common/global.h"
#include "common/logger.h"
#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"
#include "plugin/api/cchannelserver.h"
#include "plugin/api/comcalltexts.h"

#include <QMutexLocker>

namespace {

constexpr int handledNamesWaitMs = 500;
constexpr int handledNamesStepMs = 10;

} // namespace

void CComThread::runConnection(PortSession& session)
{
    session.timer.invalidate();
    const QString text = ComCallTexts::carrier().arg(session.lastAnswer);
    writeLog(text, DebugAlways);
    report(text);

    QString calledName;
    switch (startSession(session.port, &calledName)) {
    case SessionStart::Running:
        // A thread remembers a quit() from before the loop: only the protocol's word counts.
        do {
            exec();
        } while (!m_sessionFinished);
        waitForHandledNames();
        reportConnectionEnd(calledName);
        deleteProtocol();
        break;
    case SessionStart::Refused:
        if (!calledName.isEmpty())
            emit m_server->notConnected(calledName);
        break;
    case SessionStart::CalledOff: break;
    }
    QMutexLocker locker(&m_mutex);
    m_state = ResettingModem;
}

// calledName becomes the name of the called party, empty for an incoming call: kept apart,
// since the name that the peer tells takes the place of m_abonentName.
CComThread::SessionStart CComThread::startSession(QSerialPort& port, QString* calledName)
{
    QMutexLocker locker(&m_mutex);
    // Nobody would stop a session made now.
    if (stopRequested() || state() != WaitingForConnect)
        return SessionStart::CalledOff;
    *calledName = abonentName();
    auto* const channel = new CComChannel(&port, m_server->channelsState, m_index);
    CAbstractProtocol* const protocol = m_server->protocolFactory->createProtocol(channel);
    if (!protocol) {
        delete channel;
        return SessionStart::Refused;
    }
    m_sessionFinished = false;
    // Directly: the server's thread may be asleep in its own stop(). The order matters.
    connect(protocol, &CAbstractProtocol::finished, [this] { m_sessionFinished = true; });
    connect(protocol, &CAbstractProtocol::finished, this, &QThread::quit, Qt::DirectConnection);
    connect(protocol, &CAbstractProtocol::remoteAbonentNameChanged, [this] { ++m_toldNames; });
    connect(protocol, &CAbstractProtocol::remoteAbonentNameChanged, this, &CComThread::remoteAbonentNameChanged);
    if (!calledName->isEmpty()) {
        protocol->remoteAbonentName = *calledName;
        protocol->remoteAbonentNameFiltered = Global::filterName(*calledName);
    }
    protocol->channelName = m_settings.portName;
    setProtocol(protocol);
    protocol->start();
    return SessionStart::Running;
}

// The host shall see connected() before disconnected().
void CComThread::waitForHandledNames()
{
    for (int waitedMs = 0; waitedMs < handledNamesWaitMs; waitedMs += handledNamesStepMs) {
        if (stopRequested() || m_handledNames == m_toldNames)
            return;
        msleep(handledNamesStepMs);
    }
}

void CComThread::reportConnectionEnd(const QString& calledName)
{
    // This thread alone sets and deletes the protocol.
    const QString remoteName = m_protocol->remoteAbonentName;
    const QString text = QStringLiteral("Потеряно соединение с абонентом '%1'").arg(remoteName);
    writeLog(text, DebugTransportConnects);
    addEvent(text);
    if (!calledName.isEmpty() && !remoteName.isEmpty() &&
        Global::filterName(remoteName) != Global::filterName(calledName)) {
        emit m_server->notConnected(calledName);
        addEvent(QStringLiteral("Не удалось установить соединение с '%1'").arg(calledName));
    }
    const QString endedName = remoteName.isEmpty() ? abonentName() : remoteName;
    if (!endedName.isEmpty())
        emit m_server->disconnected(endedName, m_connectionId, m_protocol->wasUseful);
}

void CComThread::deleteProtocol()
{
    QMutexLocker locker(&m_mutex);
    CAbstractProtocol* const protocol = m_protocol;
    setProtocol(nullptr);
    // Being cancelled in a destructor would abort the host.
    setTerminationEnabled(false);
    delete protocol;
    setTerminationEnabled(true);
}

void CComThread::remoteAbonentNameChanged(QString name)
{
    _CFunctionDebug trace(Q_FUNC_INFO);
    setAbonentName(name);
    emit m_server->connected(name, m_connectionId);
    report(ComCallTexts::connected().arg(name));
    ++m_handledNames;
}
