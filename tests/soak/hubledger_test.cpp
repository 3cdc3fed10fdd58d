// That the ledger of a run with several lines sees what must not be.
#include "rig/time/virtualtime.h"
#include "tests/soak/hubledger.h"
#include "tests/soak/hubpaths.h"

#include <QCryptographicHash>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

using namespace soak;
using namespace rig;
namespace fs = std::filesystem;

namespace {

constexpr int mostOfAbonent = 5;

host::InboxLimits limits()
{
    host::InboxLimits limits;
    limits.maxMessageBytes = 1000;
    limits.ofAbonent.messages = mostOfAbonent;
    return limits;
}

class HubLedgerTest : public testing::Test
{
protected:
    void SetUp() override
    {
        startVirtualTime(1700000000000);
        std::string pattern = (fs::temp_directory_path() / "hubledger-XXXXXX").string();
        ASSERT_NE(mkdtemp(pattern.data()), nullptr);
        directory = fs::canonical(pattern);
        for (const char* site : {"/0", "/1"}) {
            for (const char* folder : {"/input", "/incomplete", "/output", "/tasks"})
                fs::create_directories(directory + site + folder);
        }
        ledger.addSite(directory + "/0", QStringLiteral("Site0"), limits());
        ledger.addSite(directory + "/1", QStringLiteral("Site1"), limits());
        const host::StorePaths paths = hubPaths(directory + "/0");
        std::ofstream(directory + "/letter") << "content";
        host::OutgoingQueue queue(paths.output, paths.tasks);
        ASSERT_EQ(queue.enqueue(QStringLiteral("Site1"), QString::fromStdString(directory + "/letter"), &queued),
                  QString());
        SentMessage message;
        message.to = 1;
        message.fileName = QStringLiteral("letter");
        message.size = 7;
        message.sha256 = queued.sha256;
        message.isQueued = true;
        index = ledger.add(message);
    }

    void TearDown() override { fs::remove_all(directory); }

    void unqueue()
    {
        const host::StorePaths paths = hubPaths(directory + "/0");
        host::OutgoingQueue queue(paths.output, paths.tasks);
        queue.rescan();
        ASSERT_EQ(queue.remove(queued), QString());
    }

    // As it would stand in the inbox of the second site.
    void receive(const std::string& place, const std::string& content, const std::string& from = "Site0",
                 const std::string& name = "letter", bool isProved = true, int id = 1)
    {
        const std::string path = directory + "/1/input/" + place;
        fs::create_directory(path);
        std::ofstream(path + '/' + name) << content;
        const QByteArray hash = QCryptographicHash::hash("content", QCryptographicHash::Sha256).toHex();
        std::ofstream(path + "/.message")
            << R"({"name":")" << name << R"(","file":")" << name << R"(","from":")" << from << R"(","sha256":")"
            << hash.toStdString() << R"(","id":"00000000000000)" << (id < 16 ? "0" : "") << std::hex << id << std::dec
            << R"(","proved":)" << (isProved ? "true}" : "false}");
    }

    void receiveFromRogue(const std::string& place, int id)
    {
        receive(place, "content", HubLedger::rogueName.toStdString(), "rogue", true, id);
    }

    std::string found() const
    {
        return checks.violations().empty()
                   ? std::string()
                   : checks.violations().front().substr(checks.violations().front().find(": ") + 2);
    }

    std::string directory;
    Checks checks;
    HubLedger ledger{&checks};
    host::QueuedMessage queued;
    std::size_t index = 0;
};

} // namespace

TEST_F(HubLedgerTest, aMessageInTheQueueIsWhereItBelongs)
{
    ledger.check();
    EXPECT_EQ(found(), "");
    EXPECT_FALSE(ledger.isAllDelivered());
    EXPECT_EQ(ledger.bytesLeft(0, 1), 7);
}

TEST_F(HubLedgerTest, aMessageInTheInboxIsDeliveredOnceItHasLeftTheQueue)
{
    receive("00000001", "content");
    ledger.check();
    EXPECT_FALSE(ledger.isAllDelivered());
    unqueue();
    ledger.check();
    EXPECT_EQ(found(), "");
    EXPECT_TRUE(ledger.isAllDelivered());
}

TEST_F(HubLedgerTest, aMessageThatStandsNowhereIsLost)
{
    unqueue();
    ledger.check();
    EXPECT_EQ(found(), "neither queued nor in the inbox: letter");
}

TEST_F(HubLedgerTest, aMessageWhoseCopyIsDamagedIsLost)
{
    std::ofstream(directory + "/0/output/" + queued.key.toStdString() + "/content") << "CONTENT";
    ledger.check();
    EXPECT_EQ(found(), "neither queued nor in the inbox: letter");
}

TEST_F(HubLedgerTest, whatIsToldAsDeliveredMustStand)
{
    ledger.delivered(0, QStringLiteral("letter"));
    EXPECT_EQ(found(), "told as delivered, but not in the inbox: letter");
}

TEST_F(HubLedgerTest, whatWasDeliveredMustStay)
{
    receive("00000001", "content");
    ledger.delivered(0, QStringLiteral("letter"));
    ledger.check();
    EXPECT_EQ(found(), "");
    fs::remove_all(directory + "/1/input/00000001");
    ledger.check();
    EXPECT_EQ(found(), "delivered, and gone from the inbox: letter");
}

TEST_F(HubLedgerTest, aSecondCopyIsSeen)
{
    receive("00000001", "content");
    receive("00000002", "content");
    ledger.check();
    EXPECT_EQ(found(), "twice in the inbox: Site1 00000002 letter");
}

TEST_F(HubLedgerTest, otherContentIsSeen)
{
    receive("00000001", "contemt");
    ledger.check();
    EXPECT_EQ(found(), "in the inbox, but not what its record says: Site1 00000001 letter");
}

TEST_F(HubLedgerTest, anotherSenderIsSeen)
{
    receive("00000001", "content", "Site1");
    ledger.check();
    EXPECT_EQ(found(), "in the inbox, but not as it was sent: Site1 00000001 letter");
}

TEST_F(HubLedgerTest, aMessageThatNobodySentIsSeenUnderAKnownNameOnly)
{
    receive("00000001", "content", "Stranger", "other", false);
    ledger.check();
    EXPECT_EQ(found(), "");
    receive("00000002", "content", "Site0", "another", false);
    ledger.check();
    EXPECT_EQ(found(), "in the inbox under the name of one who never sent it: Site1 00000002 another");
}

TEST_F(HubLedgerTest, aMessageBeyondTheLimitIsSeen)
{
    receive("00000001", std::string(static_cast<std::size_t>(limits().maxMessageBytes) + 1, 'x'), "Stranger", "large",
            false);
    ledger.check();
    ASSERT_EQ(checks.violations().size(), 2u); // its hash is not right either
    EXPECT_NE(checks.violations().back().find("larger than this inbox takes"), std::string::npos);
}

TEST_F(HubLedgerTest, aStrangersMessageIsMarkedAndAnAbonentsIsNot)
{
    receive("00000001", "content", "Stranger", "other");
    ledger.check();
    EXPECT_EQ(found(), "in the inbox, and whether its sender was proved is told wrongly: Site1 00000001 other");
}

TEST_F(HubLedgerTest, anAbonentsMessageThatPassesForAStrangersIsSeen)
{
    receive("00000001", "content", "Site0", "letter", false);
    ledger.check();
    EXPECT_EQ(found(), "in the inbox, and whether its sender was proved is told wrongly: Site1 00000001 letter");
}

TEST_F(HubLedgerTest, strangersHaveASmallShareOnly)
{
    for (qint64 count = 0; count <= host::InboxLimits().ofUnproved.messages; ++count)
        receive(std::to_string(10000000 + count), "content", "Stranger", "other", false);
    ledger.check();
    EXPECT_EQ(found(), "more of one in the inbox than may stand there: Site1, of strangers");
}

TEST_F(HubLedgerTest, anAbonentHasItsShareOnly)
{
    for (int count = 0; count <= mostOfAbonent; ++count)
        receiveFromRogue(std::to_string(10000000 + count), count + 1);
    ledger.check();
    EXPECT_EQ(found(), "more of one in the inbox than may stand there: Site1, of Rogue");
}

TEST_F(HubLedgerTest, whatARogueWasToldMustStand)
{
    const QByteArray hash = QCryptographicHash::hash("content", QCryptographicHash::Sha256);
    receiveFromRogue("00000001", 5);
    ledger.acknowledged(1, HubLedger::rogueName, 5, hash);
    ledger.checkAnew();
    EXPECT_EQ(found(), "");
    fs::remove_all(directory + "/1/input/00000001");
    ledger.check();
    EXPECT_EQ(found(), "acknowledged, and gone from the inbox: 0000000000000005");
    ledger.acknowledged(1, HubLedger::rogueName, 6, hash);
    EXPECT_NE(checks.violations().back().find("acknowledged, but not in the inbox"), std::string::npos);
}

TEST_F(HubLedgerTest, aMessageOfARogueStandsOnce)
{
    receiveFromRogue("00000001", 5);
    receiveFromRogue("00000002", 6);
    ledger.check();
    EXPECT_EQ(found(), "");
    receiveFromRogue("00000003", 5);
    ledger.stored(1);
    EXPECT_EQ(found(), "twice in the inbox: Site1 00000003");
}

TEST_F(HubLedgerTest, theIdentifierZeroIsSeen)
{
    receiveFromRogue("00000001", 0);
    ledger.check();
    EXPECT_EQ(found(), "in the inbox with the identifier 0: Site1 00000001");
}

TEST_F(HubLedgerTest, partsAreFewAndHaveIdentifiers)
{
    const auto makePart = [this](int number, const std::string& id) {
        const std::string path = directory + "/1/incomplete/" + std::to_string(number);
        fs::create_directory(path);
        std::ofstream(path + "/.message") << R"({"from":"Rogue","id":")" << id << R"("})";
    };
    for (int number = 0; number < limits().maxPartsOfAbonent; ++number)
        makePart(number, "0000000000000001");
    ledger.check();
    EXPECT_EQ(found(), "");
    makePart(100, "0000000000000000");
    ledger.check();
    EXPECT_EQ(found(), "a part with the identifier 0: Site1");
    for (int number = 200; number < 210; ++number)
        makePart(number, "0000000000000001");
    ledger.check();
    EXPECT_NE(checks.violations().back().find("too many parts of one peer: Site1, of Rogue"), std::string::npos);
}
