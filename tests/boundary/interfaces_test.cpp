// The shapes that host and plug-in agree on: slot orders, member order, meta-objects.
// A host built against its own copy of these headers relies on every one of them.
#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/cabstractjournal.h"
#include "plugin/api/cabstractprotocol.h"
#include "plugin/api/cabstractprotocolfactory.h"
#include "plugin/api/cchannel.h"
#include "plugin/api/cchannelplugin.h"
#include "plugin/api/cchannelserver.h"
#include "rig/silentstate.h"

#include <QMetaMethod>
#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

// The Itanium C++ ABI writes a pointer to a virtual function as 1 plus the byte offset
// into the table of virtual operations, and a pointer to a data member as its offset.
template <typename Function>
int slotOf(Function function)
{
    std::ptrdiff_t words[2];
    static_assert(sizeof(function) == sizeof(words));
    std::memcpy(words, &function, sizeof(words));
    EXPECT_EQ(words[0] % 2, 1) << "not virtual";
    return static_cast<int>((words[0] - 1) / static_cast<std::ptrdiff_t>(sizeof(void*)));
}

template <typename Class, typename Member>
int offsetOf(Member Class::*member)
{
    std::ptrdiff_t offset = 0;
    static_assert(sizeof(member) == sizeof(offset));
    std::memcpy(&offset, &member, sizeof(offset));
    return static_cast<int>(offset);
}

// QObject's own: three of the meta-object, two destructors, seven of events and connections.
constexpr int qobjectSlots = 12;
constexpr int destructorSlots = 2;

QByteArrayList ownSignatures(const QMetaObject& meta)
{
    QByteArrayList found;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        found.append(meta.method(i).methodSignature());
    return found;
}

// The names of the meta-object's string table: the class, then each method with its
// parameters, each at its first appearance.
QByteArrayList ownNames(const QMetaObject& meta)
{
    QByteArrayList names{meta.className()};
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i) {
        for (const QByteArray& name : QByteArrayList{meta.method(i).name()} + meta.method(i).parameterNames()) {
            if (!names.contains(name))
                names.append(name);
        }
    }
    return names;
}

class CountingChannel : public CChannel
{
public:
    explicit CountingChannel(int* deleted) : m_deleted(deleted) { type = 2; }
    ~CountingChannel() override { ++*m_deleted; }
    void disconnectFromAbonent() override {}
    bool isConnected() override { return true; }
    void write(const QByteArray&) override {}
    QByteArray read(int) override { return {}; }
    int idealBlockSize() override { return 0; }

private:
    int* m_deleted;
};

class CountingFactory : public CAbstractProtocolFactory
{
public:
    explicit CountingFactory(int* deleted) : m_deleted(deleted) {}
    ~CountingFactory() override { ++*m_deleted; }
    CAbstractProtocol* createProtocol(CChannel*) override { return nullptr; }

private:
    int* m_deleted;
};

class CountingState : public rig::SilentState
{
public:
    explicit CountingState(int* deleted) : m_deleted(deleted) {}
    ~CountingState() override { ++*m_deleted; }

private:
    int* m_deleted;
};

class CountingJournal : public CAbstractJournal
{
public:
    explicit CountingJournal(int* deleted) : m_deleted(deleted) {}
    ~CountingJournal() override { ++*m_deleted; }
    void addRecord(int, const QString&, const QString&) override {}

private:
    int* m_deleted;
};

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

} // namespace

TEST(Interfaces, PluginSlots)
{
    static_assert(!std::is_base_of_v<QObject, CChannelPlugin>);
    static_assert(std::has_virtual_destructor_v<CChannelPlugin>);
    static_assert(sizeof(CChannelPlugin) == sizeof(void*), "no data members");
    EXPECT_EQ(slotOf<int (CChannelPlugin::*)() const>(&CChannelPlugin::type), destructorSlots + 0);
    EXPECT_EQ(slotOf<QString (CChannelPlugin::*)() const>(&CChannelPlugin::name), destructorSlots + 1);
    EXPECT_EQ(slotOf<CChannelServer* (CChannelPlugin::*)() const>(&CChannelPlugin::create), destructorSlots + 2);
    EXPECT_EQ(slotOf<void (CChannelPlugin::*)(int*) const>(&CChannelPlugin::incCallTimeout), destructorSlots + 3);
    EXPECT_EQ(slotOf<void (CChannelPlugin::*)(int*) const>(&CChannelPlugin::decCallTimeout), destructorSlots + 4);
}

TEST(Interfaces, ServerSlots)
{
    static_assert(std::is_base_of_v<QObject, CChannelServer>);
    static_assert(std::has_virtual_destructor_v<CChannelServer>);
    using Polled = bool (CChannelServer::*)() const;
    using Plain = void (CChannelServer::*)();
    EXPECT_EQ(slotOf<Polled>(&CChannelServer::hasFreeChannel), qobjectSlots + 0);
    EXPECT_EQ(slotOf<Polled>(&CChannelServer::isHardwareOn), qobjectSlots + 1);
    EXPECT_EQ(slotOf<Polled>(&CChannelServer::canCheckOnline), qobjectSlots + 2);
    EXPECT_EQ(slotOf<Plain>(&CChannelServer::start), qobjectSlots + 3);
    EXPECT_EQ(slotOf<Plain>(&CChannelServer::stop), qobjectSlots + 4);
    EXPECT_EQ(slotOf<Plain>(&CChannelServer::settingsWasChanged), qobjectSlots + 5);
    EXPECT_EQ((slotOf<void (CChannelServer::*)(const QString&, const QByteArray&)>(&CChannelServer::connectToAbonent)),
              qobjectSlots + 6);
    EXPECT_EQ((slotOf<void (CChannelServer::*)(const QString&, int)>(&CChannelServer::disconnectFromAbonent)),
              qobjectSlots + 7);
    EXPECT_EQ(slotOf<void (CChannelServer::*)(int)>(&CChannelServer::keepAliveConnection), qobjectSlots + 8);
}

TEST(Interfaces, ServerMembersFollowQObjectDirectly)
{
    EXPECT_EQ(offsetOf(&CChannelServer::type), 16);
    EXPECT_EQ(offsetOf(&CChannelServer::stateId), 20);
    EXPECT_EQ(offsetOf(&CChannelServer::protocolFactory), 24);
    EXPECT_EQ(offsetOf(&CChannelServer::channelsState), 32);
    EXPECT_EQ(offsetOf(&CChannelServer::journal), 40);
    EXPECT_EQ(sizeof(CChannelServer), 48u);
    static_assert(std::is_same_v<decltype(CChannelServer::type), int>);
    static_assert(std::is_same_v<decltype(CChannelServer::stateId), int>);
    static_assert(std::is_same_v<decltype(CChannelServer::protocolFactory), CAbstractProtocolFactory*>);
    static_assert(std::is_same_v<decltype(CChannelServer::channelsState), CAbstractChannelsState*>);
    static_assert(std::is_same_v<decltype(CChannelServer::journal), CAbstractJournal*>);
}

TEST(Interfaces, ServerBaseIsEmptyAtConstruction)
{
    BareServer server;
    EXPECT_EQ(server.type, 0);
    EXPECT_EQ(server.stateId, 0);
    EXPECT_EQ(server.protocolFactory, nullptr);
    EXPECT_EQ(server.channelsState, nullptr);
    EXPECT_EQ(server.journal, nullptr);
    EXPECT_EQ(server.parent(), nullptr);
    // Neither touches the objects that are not set.
    server.start();
    server.settingsWasChanged();
    server.stop();
}

TEST(Interfaces, ServerDeletesItsProtocolFactoryAndNothingElse)
{
    int factories = 0;
    int states = 0;
    int journals = 0;
    CountingState state(&states);
    CountingJournal journal(&journals);
    {
        BareServer server;
        server.protocolFactory = new CountingFactory(&factories);
        server.channelsState = &state;
        server.journal = &journal;
    }
    EXPECT_EQ(factories, 1);
    EXPECT_EQ(states, 0);
    EXPECT_EQ(journals, 0);
}

TEST(Interfaces, ServerMethodsStandInTheContractsOrder)
{
    const QMetaObject& meta = CChannelServer::staticMetaObject;
    const QByteArrayList expected{"connected(QString,int)",
                                  "notConnected(QString)",
                                  "disconnected(QString,int,bool)",
                                  "finished()",
                                  "settingsWasChanged()",
                                  "connectToAbonent(QString,QByteArray)",
                                  "disconnectFromAbonent(QString,int)",
                                  "keepAliveConnection(int)"};
    EXPECT_EQ(ownSignatures(meta), expected);
    for (int i = 0; i < expected.size(); ++i) {
        const QMetaMethod method = meta.method(meta.methodOffset() + i);
        EXPECT_EQ(method.methodType(), i < 4 ? QMetaMethod::Signal : QMetaMethod::Slot) << expected[i].constData();
        EXPECT_EQ(method.access(), QMetaMethod::Public) << expected[i].constData();
        EXPECT_STREQ(method.typeName(), "void") << expected[i].constData();
    }
    EXPECT_EQ(meta.methodCount(), 13);
}

TEST(Interfaces, ServerParameterNames)
{
    const QMetaObject& meta = CChannelServer::staticMetaObject;
    const QList<QByteArrayList> expected{{"abonentName", "connectionId"},
                                         {"abonentName"},
                                         {"abonentName", "connectionId", "wasUseful"},
                                         {},
                                         {},
                                         {"abonentName", "abonentsData"},
                                         {"abonentName", "connectionId"},
                                         {"connectionId"}};
    for (int i = 0; i < expected.size(); ++i)
        EXPECT_EQ(meta.method(meta.methodOffset() + i).parameterNames(), expected[i]) << i;
}

TEST(Interfaces, ServerStringTable)
{
    const QByteArrayList expected{"CChannelServer",     "connected",        "abonentName",  "connectionId",
                                  "notConnected",       "disconnected",     "wasUseful",    "finished",
                                  "settingsWasChanged", "connectToAbonent", "abonentsData", "disconnectFromAbonent",
                                  "keepAliveConnection"};
    EXPECT_EQ(ownNames(CChannelServer::staticMetaObject), expected);
}

TEST(Interfaces, ServerOperationsOutsideTheMetaObject)
{
    for (const char* signature : {"hasFreeChannel()", "isHardwareOn()", "canCheckOnline()", "start()", "stop()"})
        EXPECT_EQ(CChannelServer::staticMetaObject.indexOfMethod(signature), -1) << signature;
}

TEST(Interfaces, ServerSignalArguments)
{
    static_assert(std::is_same_v<decltype(&CChannelServer::connected), void (CChannelServer::*)(const QString&, int)>);
    static_assert(std::is_same_v<decltype(&CChannelServer::notConnected), void (CChannelServer::*)(QString)>,
                  "by value");
    static_assert(
        std::is_same_v<decltype(&CChannelServer::disconnected), void (CChannelServer::*)(const QString&, int, bool)>);
    static_assert(std::is_same_v<decltype(&CChannelServer::finished), void (CChannelServer::*)()>);
}

TEST(Interfaces, ChannelSlots)
{
    static_assert(!std::is_base_of_v<QObject, CChannel>);
    static_assert(std::has_virtual_destructor_v<CChannel>);
    // The exact types: neither isConnected nor idealBlockSize is const.
    static_assert(std::is_same_v<decltype(&CChannel::disconnectFromAbonent), void (CChannel::*)()>);
    static_assert(std::is_same_v<decltype(&CChannel::isConnected), bool (CChannel::*)()>);
    static_assert(std::is_same_v<decltype(&CChannel::write), void (CChannel::*)(const QByteArray&)>);
    static_assert(std::is_same_v<decltype(&CChannel::read), QByteArray (CChannel::*)(int)>);
    static_assert(std::is_same_v<decltype(&CChannel::idealBlockSize), int (CChannel::*)()>);
    EXPECT_EQ(slotOf(&CChannel::disconnectFromAbonent), destructorSlots + 0);
    EXPECT_EQ(slotOf(&CChannel::isConnected), destructorSlots + 1);
    EXPECT_EQ(slotOf(&CChannel::write), destructorSlots + 2);
    EXPECT_EQ(slotOf(&CChannel::read), destructorSlots + 3);
    EXPECT_EQ(slotOf(&CChannel::idealBlockSize), destructorSlots + 4);
    EXPECT_EQ(offsetOf(&CChannel::type), 8);
    static_assert(std::is_same_v<decltype(CChannel::type), int>);
}

TEST(Interfaces, ProtocolSlots)
{
    static_assert(std::is_base_of_v<QObject, CAbstractProtocol>);
    using Plain = void (CAbstractProtocol::*)();
    EXPECT_EQ(slotOf<Plain>(&CAbstractProtocol::start), qobjectSlots + 0);
    EXPECT_EQ(slotOf<Plain>(&CAbstractProtocol::stop), qobjectSlots + 1);
}

TEST(Interfaces, ProtocolMembersFollowQObjectDirectly)
{
    EXPECT_EQ(offsetOf(&CAbstractProtocol::channel), 16);
    EXPECT_EQ(offsetOf(&CAbstractProtocol::remoteAbonentName), 24);
    EXPECT_EQ(offsetOf(&CAbstractProtocol::remoteAbonentNameFiltered), 32);
    EXPECT_EQ(offsetOf(&CAbstractProtocol::channelName), 40);
    EXPECT_EQ(offsetOf(&CAbstractProtocol::keepAlive), 48);
    EXPECT_EQ(offsetOf(&CAbstractProtocol::wasUseful), 49);
    EXPECT_EQ(sizeof(CAbstractProtocol), 56u);
    static_assert(std::is_same_v<decltype(CAbstractProtocol::channel), CChannel*>);
    static_assert(std::is_same_v<decltype(CAbstractProtocol::keepAlive), bool>);
    static_assert(std::is_same_v<decltype(CAbstractProtocol::wasUseful), bool>);
}

TEST(Interfaces, ProtocolMetaObject)
{
    const QMetaObject& meta = CAbstractProtocol::staticMetaObject;
    EXPECT_EQ(ownSignatures(meta), (QByteArrayList{"finished()", "remoteAbonentNameChanged(QString)"}));
    EXPECT_EQ(ownNames(meta),
              (QByteArrayList{"CAbstractProtocol", "finished", "remoteAbonentNameChanged", "remoteAbonentName"}));
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        EXPECT_EQ(meta.method(i).methodType(), QMetaMethod::Signal);
    static_assert(std::is_same_v<decltype(&CAbstractProtocol::remoteAbonentNameChanged),
                                 void (CAbstractProtocol::*)(const QString&)>);
}

TEST(Interfaces, ProtocolBaseStartClearsWasUsefulOnly)
{
    CAbstractProtocol protocol;
    EXPECT_EQ(protocol.channel, nullptr);
    EXPECT_FALSE(protocol.keepAlive);
    EXPECT_FALSE(protocol.wasUseful);
    protocol.wasUseful = true;
    protocol.keepAlive = true;
    protocol.remoteAbonentName = QStringLiteral("Пост 1");
    protocol.start();
    EXPECT_FALSE(protocol.wasUseful);
    EXPECT_TRUE(protocol.keepAlive);
    EXPECT_EQ(protocol.remoteAbonentName, QStringLiteral("Пост 1"));
    protocol.wasUseful = true;
    protocol.stop();
    EXPECT_TRUE(protocol.wasUseful);
}

TEST(Interfaces, ProtocolDeletesItsChannel)
{
    delete new CAbstractProtocol;
    int deleted = 0;
    auto* protocol = new CAbstractProtocol(new CountingChannel(&deleted));
    EXPECT_EQ(protocol->channel->type, 2);
    EXPECT_EQ(deleted, 0);
    delete protocol;
    EXPECT_EQ(deleted, 1);
}

TEST(Interfaces, ChannelsStateSlots)
{
    static_assert(std::has_virtual_destructor_v<CAbstractChannelsState>);
    static_assert(sizeof(CAbstractChannelsState) == sizeof(void*));
    using State = CAbstractChannelsState;
    EXPECT_EQ((slotOf<int (State::*)(int, const QString&, const QString&)>(&State::addChannel)), destructorSlots + 0);
    EXPECT_EQ(slotOf<void (State::*)(int)>(&State::removeChannel), destructorSlots + 1);
    EXPECT_EQ((slotOf<void (State::*)(int, const QString&)>(&State::setState)), destructorSlots + 2);
    EXPECT_EQ((slotOf<void (State::*)(int, int)>(&State::addReceivedBytes)), destructorSlots + 3);
    EXPECT_EQ((slotOf<void (State::*)(int, int)>(&State::addSentBytes)), destructorSlots + 4);
}

TEST(Interfaces, FactorySlots)
{
    static_assert(std::has_virtual_destructor_v<CAbstractProtocolFactory>);
    using Factory = CAbstractProtocolFactory;
    EXPECT_EQ(slotOf<CAbstractProtocol* (Factory::*)(CChannel*)>(&Factory::createProtocol), destructorSlots);
}

TEST(Interfaces, JournalSlots)
{
    static_assert(std::has_virtual_destructor_v<CAbstractJournal>);
    static_assert(sizeof(CAbstractJournal) == sizeof(void*));
    using Journal = CAbstractJournal;
    EXPECT_EQ((slotOf<void (Journal::*)(int, const QString&, const QString&)>(&Journal::addRecord)), destructorSlots);
}
