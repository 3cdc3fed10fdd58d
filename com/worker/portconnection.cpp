#include "com/worker/portconnection.h"

#include "com/link/ccomchannel.h"
#include "com/worker/portreports.h"
#include "common/global.h"
#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"
#include "plugin/api/cchannelserver.h"

#include <QMutexLocker>
#include <QThread>

namespace {

constexpr int handledNamesWaitMs = 500;
constexpr int handledNamesStepMs = 10;

} // namespace

PortConnection::PortConnection(CChannelServer* server, const PortReports* reports)
    : m_server(server), m_reports(reports)
{
}

QString PortConnection::abonentName() const
{
    QMutexLocker locker(&m_lifeMutex);
    return m_abonentName;
}

void PortConnection::setAbonentName(const QString& name)
{
    QMutexLocker locker(&m_lifeMutex);
    m_abonentName = name;
}

void PortConnection::keepAlive()
{
    QMutexLocker locker(&m_lifeMutex);
    // The protocol reads it in its own thread.
    if (m_protocol)
        __atomic_store_n(&m_protocol->keepAlive, true, __ATOMIC_RELAXED);
}

void PortConnection::stop()
{
    if (m_protocol)
        m_protocol->stop();
}

CAbstractProtocol* PortConnection::makeProtocol(QSerialPort* port, const QString& portName)
{
    m_calledName = abonentName();
    auto* const channel = new CComChannel(port, m_server->channelsState, m_reports->index());
    CAbstractProtocol* const protocol = m_server->protocolFactory->createProtocol(channel);
    if (!protocol) {
        delete channel;
        return nullptr;
    }
    m_hasFinished = false;
    QObject::connect(protocol, &CAbstractProtocol::finished, [this] { m_hasFinished = true; });
    QObject::connect(protocol, &CAbstractProtocol::remoteAbonentNameChanged, [this] { ++m_toldNames; });
    if (!m_calledName.isEmpty()) {
        protocol->remoteAbonentName = m_calledName;
        protocol->remoteAbonentNameFiltered = Global::filterName(m_calledName);
    }
    protocol->channelName = portName;
    return protocol;
}

void PortConnection::begin(CAbstractProtocol* protocol)
{
    setProtocol(protocol);
    protocol->start();
}

void PortConnection::deleteProtocol()
{
    CAbstractProtocol* const protocol = m_protocol;
    setProtocol(nullptr);
    delete protocol;
}

void PortConnection::waitForHandledNames(const std::atomic<bool>& stopRequested) const
{
    for (int waitedMs = 0; waitedMs < handledNamesWaitMs; waitedMs += handledNamesStepMs) {
        if (stopRequested || m_handledNames == m_toldNames)
            return;
        QThread::msleep(handledNamesStepMs);
    }
}

void PortConnection::reportRefusal() const
{
    if (!m_calledName.isEmpty())
        emit m_server->notConnected(m_calledName);
}

void PortConnection::reportEnd(int connectionId) const
{
    // The worker's thread alone sets and deletes the protocol.
    const QString remoteName = m_protocol->remoteAbonentName;
    const QString text = QStringLiteral("Потеряно соединение с абонентом '%1'").arg(remoteName);
    PortReports::writeLog(text, DebugTransportConnects);
    m_reports->addEvent(text);
    if (!m_calledName.isEmpty() && !remoteName.isEmpty() &&
        Global::filterName(remoteName) != Global::filterName(m_calledName)) {
        emit m_server->notConnected(m_calledName);
        m_reports->addEvent(QStringLiteral("Не удалось установить соединение с '%1'").arg(m_calledName));
    }
    const QString endedName = remoteName.isEmpty() ? abonentName() : remoteName;
    if (!endedName.isEmpty())
        emit m_server->disconnected(endedName, connectionId, m_protocol->wasUseful);
}

void PortConnection::setProtocol(CAbstractProtocol* protocol)
{
    QMutexLocker locker(&m_lifeMutex);
    m_protocol = protocol;
}
