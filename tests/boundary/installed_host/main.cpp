// The least a host does with the plug-in: load it, check its version, share the log,
// start the channel in a thread of its own, stop it and give everything back. It also makes the
// channel's settings as a host does that lets its user edit them.
#include "com/formats/ccomsettings.h"
#include "common/logger.h"
#ifdef INCLUDES_OF_1_0
// In the installed tree alone.
#include <plugin/cabstractchannelsstate.h>
#include <plugin/cabstractjournal.h>
#include <plugin/cabstractprotocol.h>
#include <plugin/cabstractprotocolfactory.h>
#include <plugin/cchannelplugin.h>
#include <plugin/cchannelserver.h>
#include <plugin/entrypoints.h>
#else
#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/cabstractjournal.h"
#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"
#include "plugin/api/cchannelplugin.h"
#include "plugin/api/cchannelserver.h"
#include "plugin/api/entrypoints.h"
#endif

#include <QCoreApplication>
#include <QLibrary>
#include <QMutex>
#include <QMutexLocker>
#include <QTextStream>
#include <QThread>

namespace {

constexpr int serverStateId = 7;

void say(const QString& line)
{
    // Called from the channel's threads as well.
    static QMutex mutex;
    QMutexLocker locker(&mutex);
    QTextStream(stdout) << line << '\n';
}

class ChannelsState : public CAbstractChannelsState
{
public:
    int addChannel(int, const QString& name, const QString& state) override
    {
        say(QStringLiteral("port ") + name + QLatin1Char(' ') + state);
        return 100;
    }
    void removeChannel(int id) override { say(QStringLiteral("removed %1").arg(id)); }
    void setState(int id, const QString& text) override { say(QStringLiteral("state %1 ").arg(id) + text); }
    void addReceivedBytes(int, int) override {}
    void addSentBytes(int, int) override {}
};

class Journal : public CAbstractJournal
{
public:
    void addRecord(int kind, const QString& source, const QString& text) override
    {
        say(QStringLiteral("journal %1 ").arg(kind) + source + QStringLiteral(": ") + text);
    }
};

// No calls are placed here, so no session is ever asked for.
class ProtocolFactory : public CAbstractProtocolFactory
{
public:
    CAbstractProtocol* createProtocol(CChannel* channel) override { return new CAbstractProtocol(channel); }
};

QByteArray settingsOfOnePort()
{
    ComPortSettings port;
    port.enabled = true;
    port.portName = QStringLiteral("none");
    ChannelComSettings settings;
    settings.ports.append(port);
    return settings.toByteArray();
}

template <typename Function>
Function resolve(QLibrary& library, const char* name)
{
    const auto function = reinterpret_cast<Function>(library.resolve(name));
    if (!function)
        qFatal("%s is not in the library", name);
    return function;
}

} // namespace

int main(int argc, char** argv)
{
    QCoreApplication application(argc, argv);
    say(QStringLiteral("settings ") + QString::fromLatin1(settingsOfOnePort().toHex()));
    QLibrary library(QCoreApplication::applicationDirPath() + QStringLiteral("/channelPlugins/libtransportCom.so.1"));
    if (!library.load()) {
        say(library.errorString());
        return 1;
    }
    const int version = resolve<ApiVersionFunction>(library, "apiVersion")();
    say(QStringLiteral("version %1").arg(version));
    if (version != channelApiVersion)
        return 1;

    LoggerData::initDebug(nullptr);
    resolve<InitDebugFunction>(library, "initDebug")(LoggerData::debugData());
    debug(QStringLiteral("InstalledHost"), QStringLiteral("host"), DebugAlways, DebugFlagFileOnly);

    CChannelPlugin* plugin = resolve<InstanceFunction>(library, "instance")();
    say(QStringLiteral("channel %1 ").arg(plugin->type()) + plugin->name());

    ChannelsState channelsState;
    Journal journal;
    CChannelServer* server = plugin->create();
    server->stateId = serverStateId;
    server->protocolFactory = new ProtocolFactory;
    server->channelsState = &channelsState;
    server->journal = &journal;

    QThread serverThread;
    server->moveToThread(&serverThread);
    QObject::connect(server, &CChannelServer::finished, &application, &QCoreApplication::quit);
    QObject::connect(&serverThread, &QThread::started, server, [&application, server] {
        server->start();
        // Stopped from another thread than its own, the server reports finished().
        QMetaObject::invokeMethod(
            &application, [server] { server->stop(); }, Qt::QueuedConnection);
    });
    serverThread.start();
    application.exec();

    serverThread.quit();
    serverThread.wait();
    delete server;
    resolve<DeleteInstanceFunction>(library, "deleteInstance")(plugin);
    say(QStringLiteral("done"));
    return 0;
}
