// A channel plug-in for tests of the host: "ports" are paths of local sockets that it
// listens on, "telephone numbers" the paths of others'. Fast, and breakable on demand:
//   SOCKETPLUGIN_RATE      bytes a second that a line takes
//   SOCKETPLUGIN_CUT       "<bytes>:<calls>": the first calls break after so many bytes were written
//   SOCKETPLUGIN_BUSY      so many first calls fail
//   SOCKETPLUGIN_STUCK     the server never says that it has finished; with the value "thread" its
//                          thread hangs, too
//   SOCKETPLUGIN_LOST      in so many first calls the port goes down for good while it dials: no
//                          signal tells of it, only its state text
//   SOCKETPLUGIN_CUTOFF    a line that is stopped in a session ends as if it were terminated: no
//                          signal, and the session is left as it stands
#include "common/global.h"
#include "common/logger.h"
#include "host/installation/comrecords.h"
#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/cabstractjournal.h"
#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"
#include "plugin/api/cchannel.h"
#include "plugin/api/cchannelplugin.h"
#include "plugin/api/cchannelserver.h"
#include "plugin/api/entrypoints.h"

#include <QElapsedTimer>
#include <QFile>
#include <QMutex>
#include <QMutexLocker>
#include <QThread>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#ifndef PLUGIN_API_VERSION
#define PLUGIN_API_VERSION channelApiVersion
#endif
#ifndef PLUGIN_TYPE
#define PLUGIN_TYPE 2
#endif

namespace {

constexpr int blockBytes = 1024;
constexpr qint64 queueBytes = 8192;

std::atomic<int> callsPlaced{0};
std::atomic<int> callsConnected{0};

class SocketChannel : public CChannel
{
public:
    SocketChannel(int descriptor, CAbstractChannelsState* table, int row)
        : m_descriptor(descriptor), m_table(table), m_row(row)
    {
        type = PLUGIN_TYPE;
        m_clock.start();
        m_rate = qEnvironmentVariableIntValue("SOCKETPLUGIN_RATE");
        const QByteArrayList cut = qgetenv("SOCKETPLUGIN_CUT").split(':');
        if (cut.size() == 2 && callsConnected++ < cut.at(1).toInt())
            m_cutAfter = cut.at(0).toLongLong();
    }
    ~SocketChannel() override { close(m_descriptor); }

    void disconnectFromAbonent() override { m_isUp = false; }
    bool isConnected() override { return m_isUp; }

    void write(const QByteArray& data) override
    {
        QByteArray rest = data;
        while (!rest.isEmpty() && m_isUp) {
            const ssize_t count = send(m_descriptor, rest.constData(), static_cast<size_t>(rest.size()), MSG_NOSIGNAL);
            if (count < 0 && errno != EAGAIN)
                m_isUp = false;
            if (count > 0)
                rest.remove(0, static_cast<int>(count));
        }
        m_written += data.size();
        m_table->addSentBytes(m_row, data.size());
        if (m_cutAfter >= 0 && m_written >= m_cutAfter) {
            shutdown(m_descriptor, SHUT_RDWR);
            m_isUp = false;
        }
    }

    QByteArray read(int maxSize) override
    {
        pollfd wait{m_descriptor, POLLIN, 0};
        if (poll(&wait, 1, 10) <= 0)
            return QByteArray();
        QByteArray bytes(qMin(maxSize, 65536), Qt::Uninitialized);
        const ssize_t count = recv(m_descriptor, bytes.data(), static_cast<size_t>(bytes.size()), MSG_DONTWAIT);
        if (count == 0 || (count < 0 && errno != EAGAIN))
            m_isUp = false;
        bytes.truncate(static_cast<int>(qMax<ssize_t>(0, count)));
        m_table->addReceivedBytes(m_row, bytes.size());
        return bytes;
    }

    int idealBlockSize() override
    {
        if (!m_isUp || (m_rate > 0 && m_written > m_clock.elapsed() * m_rate / 1000 + queueBytes))
            return 0;
        pollfd room{m_descriptor, POLLOUT, 0};
        return poll(&room, 1, 0) > 0 && (room.revents & POLLOUT) ? blockBytes : 0;
    }

private:
    const int m_descriptor;
    CAbstractChannelsState* m_table; // not owned
    const int m_row;
    QElapsedTimer m_clock;
    bool m_isUp = true;
    qint64 m_written = 0;
    qint64 m_cutAfter = -1;
    qint64 m_rate = 0;
};

sockaddr_un addressOf(const QString& path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    qstrncpy(address.sun_path, QFile::encodeName(path).constData(), sizeof address.sun_path);
    return address;
}

class Line : public QThread
{
public:
    Line(CChannelServer* server, const QString& path, int id) : m_server(server), m_path(path), m_id(id) {}

    bool isFree() const { return m_isFree; }
    int id() const { return m_id; }
    void requestStop()
    {
        m_stop = true;
        QMutexLocker locker(&m_mutex);
        if (m_protocol && qEnvironmentVariableIsSet("SOCKETPLUGIN_CUTOFF"))
            quit();
        else if (m_protocol)
            m_protocol->stop();
    }
    bool tryCall(const QString& abonent, const QString& number)
    {
        QMutexLocker locker(&m_mutex);
        if (!m_isFree)
            return false;
        m_isFree = false;
        m_abonent = abonent;
        m_number = number;
        return true;
    }
    void keep()
    {
        QMutexLocker locker(&m_mutex);
        if (m_protocol)
            __atomic_store_n(&m_protocol->keepAlive, true, __ATOMIC_RELAXED);
    }

protected:
    void run() override
    {
        m_row = m_server->channelsState->addChannel(PLUGIN_TYPE, m_path, QStringLiteral("Инициализация"));
        const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        unlink(QFile::encodeName(m_path).constData());
        const sockaddr_un own = addressOf(m_path);
        if (bind(listener, reinterpret_cast<const sockaddr*>(&own), sizeof own) == 0 && listen(listener, 4) == 0) {
            m_server->channelsState->setState(m_row, QStringLiteral("Свободен"));
            m_isFree = true;
        }
        while (!m_stop) {
            pollfd wait{listener, POLLIN, 0};
            if (!m_isFree && !m_number.isEmpty())
                call();
            else if (poll(&wait, 1, 10) > 0)
                answer(accept(listener, nullptr, nullptr));
        }
        close(listener);
        m_server->channelsState->removeChannel(m_row);
    }

private:
    void call()
    {
        const int descriptor = socket(AF_UNIX, SOCK_STREAM, 0);
        const sockaddr_un address = addressOf(m_number);
        m_server->journal->addRecord(0, m_path,
                                     QStringLiteral("Вызов '%1' (%2). Запись команды: ATD%2").arg(m_abonent, m_number));
        m_number.clear();
        if (callsPlaced < qEnvironmentVariableIntValue("SOCKETPLUGIN_LOST")) {
            ++callsPlaced;
            close(descriptor);
            m_server->channelsState->setState(m_row, QStringLiteral("Открытие COM порта"));
            return;
        }
        const bool isBusy = callsPlaced++ < qEnvironmentVariableIntValue("SOCKETPLUGIN_BUSY");
        if (isBusy || ::connect(descriptor, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            close(descriptor);
            m_server->journal->addRecord(0, m_path, QStringLiteral("Не удалось установить соединение: BUSY"));
            emit m_server->notConnected(m_abonent);
        } else {
            connection(descriptor, m_abonent);
        }
        m_isFree = true;
    }

    void answer(int descriptor)
    {
        {
            QMutexLocker locker(&m_mutex);
            if (!m_isFree) {
                close(descriptor);
                return;
            }
            m_isFree = false;
        }
        connection(descriptor, QString());
        m_isFree = true;
    }

    void connection(int descriptor, const QString& called)
    {
        auto* channel = new SocketChannel(descriptor, m_server->channelsState, m_row);
        bool isOver = false;
        {
            QMutexLocker locker(&m_mutex);
            m_protocol = m_server->protocolFactory->createProtocol(channel);
            QObject::connect(
                m_protocol, &CAbstractProtocol::finished, m_protocol,
                [&] {
                    isOver = true;
                    quit();
                },
                Qt::DirectConnection);
            QObject::connect(
                m_protocol, &CAbstractProtocol::remoteAbonentNameChanged, m_protocol,
                [this](const QString& name) {
                    emit m_server->connected(name, m_id);
                    m_server->channelsState->setState(m_row, QStringLiteral("Установлено соединение с '%1'").arg(name));
                },
                Qt::DirectConnection);
            m_protocol->remoteAbonentName = called;
            m_protocol->channelName = m_path;
            m_protocol->start();
            if (m_stop)
                m_protocol->stop();
        }
        while (!isOver && !(m_stop && qEnvironmentVariableIsSet("SOCKETPLUGIN_CUTOFF")))
            exec();
        if (!isOver) {
            static auto* const left = new QList<CAbstractProtocol*>; // reachable, not to be taken for lost
            left->append(m_protocol);
            shutdown(descriptor, SHUT_RDWR);
            return;
        }
        if (!m_protocol->remoteAbonentName.isEmpty())
            emit m_server->disconnected(m_protocol->remoteAbonentName, m_id, m_protocol->wasUseful);
        QMutexLocker locker(&m_mutex);
        delete m_protocol;
        m_protocol = nullptr;
        m_server->channelsState->setState(m_row, QStringLiteral("Свободен"));
    }

    CChannelServer* m_server; // not owned
    const QString m_path;
    const int m_id;
    int m_row = 0;
    std::atomic<bool> m_stop{false};
    std::atomic<bool> m_isFree{false};
    QMutex m_mutex;
    QString m_abonent;
    QString m_number;
    CAbstractProtocol* m_protocol = nullptr; // owned
};

class SocketServer : public CChannelServer
{
public:
    SocketServer() { type = PLUGIN_TYPE; }
    ~SocketServer() override { clear(); }

    bool hasFreeChannel() const override
    {
        QMutexLocker locker(&m_mutex);
        return std::any_of(m_lines.cbegin(), m_lines.cend(), [](const Line* line) { return line->isFree(); });
    }
    bool isHardwareOn() const override
    {
        QMutexLocker locker(&m_mutex);
        return !m_lines.isEmpty();
    }
    bool canCheckOnline() const override { return false; }

    void start() override
    {
        journal->addRecord(0, QStringLiteral("socket"), QStringLiteral("Запуск"));
        channelsState->setState(stateId, QStringLiteral("Работает"));
        debug(QStringLiteral("SocketServer"), QStringLiteral("log line of the plug-in"), DebugAlways, DebugFlagNone);
        startLines();
    }
    void stop() override
    {
        if (QThread::currentThread() == thread())
            clear();
        else
            QMetaObject::invokeMethod(
                this,
                [this] {
                    clear();
                    channelsState->setState(stateId, QStringLiteral("Выключен"));
                    while (qgetenv("SOCKETPLUGIN_STUCK") == "thread")
                        pause();
                    if (!qEnvironmentVariableIsSet("SOCKETPLUGIN_STUCK"))
                        emit finished();
                },
                Qt::QueuedConnection);
    }
    void settingsWasChanged() override
    {
        clear();
        startLines();
    }
    void connectToAbonent(const QString& abonentName, const QByteArray& abonentsData) override
    {
        AbonentComSettings abonent;
        if (!host::readRecord(abonentsData, &abonent).isEmpty())
            return;
        QMutexLocker locker(&m_mutex);
        for (Line* line : qAsConst(m_lines)) {
            if (line->tryCall(abonentName, abonent.phoneNumber))
                return;
        }
        locker.unlock();
        emit notConnected(abonentName);
    }
    void disconnectFromAbonent(const QString&, int) override {}
    void keepAliveConnection(int connectionId) override
    {
        journal->addRecord(0, QStringLiteral("socket"), QStringLiteral("keeps connection %1").arg(connectionId));
        QMutexLocker locker(&m_mutex);
        for (Line* line : qAsConst(m_lines)) {
            if (line->id() == connectionId)
                line->keep();
        }
    }

private:
    void startLines()
    {
        QFile file(Global::channelComSettingsFilePath());
        ChannelComSettings settings;
        if (!file.open(QIODevice::ReadOnly) || !host::readRecord(file.readAll(), &settings).isEmpty())
            return;
        QMutexLocker locker(&m_mutex);
        for (const ComPortSettings& port : qAsConst(settings.ports)) {
            m_lines.append(new Line(this, port.portName, m_lines.size() + 1));
            m_lines.last()->start();
        }
    }
    void clear()
    {
        QList<Line*> lines;
        {
            QMutexLocker locker(&m_mutex);
            lines.swap(m_lines);
        }
        for (Line* line : qAsConst(lines))
            line->requestStop();
        for (Line* line : qAsConst(lines)) {
            line->wait();
            delete line;
        }
    }

    mutable QMutex m_mutex;
    QList<Line*> m_lines;
};

class SocketPlugin : public CChannelPlugin
{
public:
    int type() const override { return PLUGIN_TYPE; }
    QString name() const override { return QStringLiteral("socket"); }
    CChannelServer* create() const override { return new SocketServer; }
    void incCallTimeout(int* timeout) const override { *timeout = qMin(2 * *timeout + 1, 8); }
    void decCallTimeout(int* timeout) const override { *timeout /= 2; }
};

} // namespace

extern "C" {

Q_DECL_EXPORT int apiVersion()
{
    return PLUGIN_API_VERSION;
}
Q_DECL_EXPORT CChannelPlugin* instance()
{
    return new SocketPlugin;
}
Q_DECL_EXPORT void deleteInstance(CChannelPlugin* plugin)
{
    delete plugin;
}
Q_DECL_EXPORT void initDebug(DebugData* data)
{
    LoggerData::initDebug(data);
}
}
