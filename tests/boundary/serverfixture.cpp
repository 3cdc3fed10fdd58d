#include "tests/boundary/serverfixture.h"

#include "com/link/currentcomsettings.h"
#include "rig/testroot.h"

#include <QCoreApplication>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QMutexLocker>
#include <QRegularExpression>

#include <algorithm>

namespace {

void writeFile(const QString& path, const QByteArray& bytes)
{
    QFile file(path);
    ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << path.toStdString();
    ASSERT_EQ(file.write(bytes), bytes.size());
}

// Never destroyed: a terminated worker may still use one.
QList<CAbstractProtocol*>& leftSessions()
{
    static auto* const left = new QList<CAbstractProtocol*>;
    return *left;
}

} // namespace

SessionFactory::~SessionFactory()
{
    leftSessions().append(m_sessions);
}

CAbstractProtocol* SessionFactory::createProtocol(CChannel* channel)
{
    return new Session(channel, this);
}

void SessionFactory::setPeerName(const QString& name)
{
    QMutexLocker locker(&m_mutex);
    m_peerName = name;
}

void SessionFactory::setWhenRunning(std::function<void()> function)
{
    QMutexLocker locker(&m_mutex);
    m_whenRunning = std::move(function);
}

int SessionFactory::running() const
{
    QMutexLocker locker(&m_mutex);
    return m_sessions.size();
}

QStringList SessionFactory::channelNames() const
{
    QMutexLocker locker(&m_mutex);
    QStringList names;
    for (const CAbstractProtocol* session : m_sessions)
        names.append(session->channelName);
    names.sort();
    return names;
}

QStringList SessionFactory::keptChannelNames() const
{
    QMutexLocker locker(&m_mutex);
    QStringList names;
    for (const CAbstractProtocol* session : m_sessions) {
        if (__atomic_load_n(&session->keepAlive, __ATOMIC_RELAXED))
            names.append(session->channelName);
    }
    names.sort();
    return names;
}

Session::Session(CChannel* ownedChannel, SessionFactory* factory) : CAbstractProtocol(ownedChannel), m_factory(factory)
{
}

Session::~Session()
{
    QMutexLocker locker(&m_factory->m_mutex);
    m_factory->m_sessions.removeOne(this);
}

void Session::start()
{
    CAbstractProtocol::start();
    QString peerName;
    std::function<void()> whenRunning;
    {
        QMutexLocker locker(&m_factory->m_mutex);
        m_factory->m_sessions.append(this);
        peerName = m_factory->m_peerName;
        whenRunning = m_factory->m_whenRunning;
    }
    if (!peerName.isEmpty()) {
        remoteAbonentName = peerName;
        wasUseful = true;
        emit remoteAbonentNameChanged(peerName);
    }
    if (whenRunning)
        QMetaObject::invokeMethod(this, whenRunning, Qt::QueuedConnection);
}

void Session::stop()
{
    // Called from the server's thread; the session itself lives in the worker's.
    QMetaObject::invokeMethod(this, &CAbstractProtocol::finished, Qt::QueuedConnection);
}

int NotingChannelsState::addChannel(int type, const QString& name, const QString& state)
{
    if (whenAdding)
        whenAdding();
    return RecordingChannelsState::addChannel(type, name, state);
}

void NotingChannelsState::setState(int id, const QString& text)
{
    RecordingChannelsState::setState(id, text);
    if (whenSetting)
        whenSetting(id, text);
}

void ServerTest::SetUp()
{
    setCurrentComSettings(ChannelComSettings());
    QFile::remove(settingsPath());
    ASSERT_TRUE(QDir().mkpath(rig::installRoot() + QStringLiteral("/settings")));
    server = std::make_unique<TestedServer>();
    server->stateId = serverStateId;
    server->channelsState = &channelsState;
    server->journal = &journal;
    factory = new SessionFactory;
    server->protocolFactory = factory;
    CComServer* emitter = server.get();
    rig::CallLog* record = &emitted;
    QObject::connect(emitter, &CChannelServer::connected, [record](const QString& name, int id) {
        record->add(QStringLiteral("connected %1 ").arg(id) + name);
    });
    QObject::connect(emitter, &CChannelServer::notConnected,
                     [record](const QString& name) { record->add(QStringLiteral("notConnected ") + name); });
    QObject::connect(emitter, &CChannelServer::disconnected, [record](const QString& name, int id, bool wasUseful) {
        record->add(QStringLiteral("disconnected %1 %2 ").arg(id).arg(int(wasUseful)) + name);
    });
    QObject::connect(emitter, &CChannelServer::finished, [record] { record->add(QStringLiteral("finished")); });
}

void ServerTest::TearDown()
{
    stopAndDelete();
}

void ServerTest::writeSettings(const QList<TestPort>& ports, int packetSize)
{
    writeSettingsBytes(channelBytes(ports, packetSize));
}

void ServerTest::writeSettingsBytes(const QByteArray& bytes)
{
    writeFile(settingsPath(), bytes);
}

void ServerTest::writeDetails(const QStringList& lines)
{
    writeFile(rig::installRoot() + QStringLiteral("/settings/settings.ini"),
              "[Details]\n" + lines.join(QLatin1Char('\n')).toUtf8() + '\n');
}

void ServerTest::moveServerToThread()
{
    thread = std::make_unique<QThread>();
    server->moveToThread(thread.get());
    thread->start();
}

void ServerTest::inServerThread(const std::function<void()>& function)
{
    QMetaObject::invokeMethod(server.get(), function, Qt::BlockingQueuedConnection);
}

void ServerTest::stopAndDelete()
{
    if (server && thread)
        inServerThread([this] { server->stop(); });
    else if (server)
        server->stop();
    if (thread) {
        thread->quit();
        thread->wait();
    }
    server.reset();
    thread.reset();
}

QString ServerTest::settingsPath() const
{
    return rig::installRoot() + QStringLiteral("/settings/channelCom.conf");
}

QString ServerTest::detailsText() const
{
    QFile file(rig::installRoot() + QStringLiteral("/settings/settings.ini"));
    return file.open(QIODevice::ReadOnly) ? QString::fromUtf8(file.readAll()) : QString();
}

QString ServerTest::logText() const
{
    QString text;
    QDirIterator it(rig::installRoot(), {QStringLiteral("*.log")}, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        QFile file(it.next());
        if (file.open(QIODevice::ReadOnly))
            text += QString::fromUtf8(file.readAll());
    }
    return text;
}

bool ServerTest::logHas(const QString& text) const
{
    const QRegularExpression line(QStringLiteral("^\\d\\d:\\d\\d:\\d\\d\\.\\d{3} {16}CComServer {4,}") +
                                      QRegularExpression::escape(text) + QLatin1Char('$'),
                                  QRegularExpression::MultilineOption);
    return line.match(logText()).hasMatch();
}

QString ServerTest::recordOf(const QString& text) const
{
    return QStringLiteral("journal 0 Коммутируемый канал ") + text;
}

QString ServerTest::stateOf(const QString& text) const
{
    return QStringLiteral("state %1 ").arg(serverStateId) + text;
}
