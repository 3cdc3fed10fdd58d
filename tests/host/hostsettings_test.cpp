#include "host/hostsettings.h"
#include "common/global.h"
#include "host/channelstable.h"
#include "host/hostjournal.h"
#include "host/terminalview.h"
#include "tests/host/storetools.h"

#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

TEST(HostSettings, IdentityIsMadeOnceAndKept)
{
    Identity identity;
    ASSERT_EQ(loadIdentity(&identity), QString());
    EXPECT_EQ(identity.name, QString());
    EXPECT_EQ(identity.installationId.size(), 16);
    ASSERT_EQ(saveOwnName(QStringLiteral("Отдел № 5, \"север\"")), QString());
    Identity again;
    ASSERT_EQ(loadIdentity(&again), QString());
    EXPECT_EQ(again.name, QStringLiteral("Отдел № 5, \"север\""));
    EXPECT_EQ(again.installationId, identity.installationId);
}

TEST(HostSettings, AbonentsAreKept)
{
    QVector<Abonent> abonents;
    ASSERT_EQ(loadAbonents(&abonents), QString());
    EXPECT_TRUE(abonents.isEmpty());
    Abonent bob;
    bob.name = QStringLiteral("Боб");
    bob.channelData = "opaque";
    ASSERT_EQ(saveAbonents({bob, Abonent{QStringLiteral("Carol"), 2, QByteArray()}}), QString());
    ASSERT_EQ(loadAbonents(&abonents), QString());
    ASSERT_EQ(abonents.size(), 2);
    EXPECT_EQ(abonents.first().name, bob.name);
    EXPECT_EQ(abonents.first().channelType, 2);
    EXPECT_EQ(abonents.first().channelData, bob.channelData);
    EXPECT_EQ(findAbonent(abonents, QStringLiteral("БОБ!")), 0);
    EXPECT_EQ(findAbonent(abonents, QStringLiteral("Dave")), -1);
}

TEST(HostSettings, DamagedAbonentsAreToldAndNotOverwritten)
{
    const QString path = writeFile(Global::abonentsSettingsFilePath(), QByteArray::fromHex("000000017FFFFFFF"));
    QVector<Abonent> abonents;
    EXPECT_EQ(loadAbonents(&abonents), path + QStringLiteral(": the data is damaged"));
    writeFile(path, QByteArray::fromHex("0000000900000000"));
    EXPECT_EQ(loadAbonents(&abonents), path + QStringLiteral(": the format has version 9, this program knows version 1"));
}

TEST(HostSettings, ComSettingsGoWhereThePluginLooks)
{
    ComSettingsRecord settings;
    ASSERT_EQ(loadComSettings(&settings), QString());
    EXPECT_TRUE(settings.ports.isEmpty());
    ComPortRecord port;
    port.portName = QStringLiteral("ttyS0");
    settings.ports = {port};
    ASSERT_EQ(saveComSettings(settings), QString());
    EXPECT_EQ(readAll(testsupport::installRoot() + QStringLiteral("/settings/channelCom.conf")), writeComSettings(settings));
    ComSettingsRecord read;
    ASSERT_EQ(loadComSettings(&read), QString());
    EXPECT_EQ(read.ports.size(), 1);
}

TEST(ChannelsTable, KeepsStatesAndTraffic)
{
    QStringList told;
    ChannelsTable table([&](const ChannelRow& row) { told.append(QString::number(row.id) + row.state); });
    const int first = table.addChannel(2, QStringLiteral("ttyS0"), QStringLiteral("a"));
    const int second = table.addChannel(2, QStringLiteral("ttyS1"), QStringLiteral("b"));
    EXPECT_NE(first, second);
    table.setState(first, QStringLiteral("c"));
    table.setState(first, QStringLiteral("c"));
    table.setState(99, QStringLiteral("nobody"));
    table.addReceivedBytes(first, 10);
    table.addReceivedBytes(first, 5);
    table.addSentBytes(second, 7);
    table.addSentBytes(99, 7);
    EXPECT_EQ(told, (QStringList{QStringLiteral("1a"), QStringLiteral("2b"), QStringLiteral("1c")}));
    ASSERT_EQ(table.rows().size(), 2);
    EXPECT_EQ(table.rows().at(0).receivedBytes, 15);
    EXPECT_EQ(table.rows().at(1).sentBytes, 7);
    table.removeChannel(first);
    table.removeChannel(99);
    ASSERT_EQ(table.rows().size(), 1);
    EXPECT_EQ(table.rows().at(0).name, QStringLiteral("ttyS1"));
}

TEST(HostJournal, WritesOneLineARecordAndGivesWayWhenLarge)
{
    const QString path = testsupport::installRoot() + QStringLiteral("/data/0/journal.txt");
    int told = 0;
    HostJournal journal(path, [&](const JournalRecord&) { ++told; }, 200);
    journal.addRecord(0, QStringLiteral("ttyS0"), QStringLiteral("Входящий\nвызов"));
    journal.addRecord(1, QStringLiteral("ttyS0"), QStringLiteral("failed"));
    const QList<QByteArray> lines = readAll(path).split('\n');
    ASSERT_EQ(lines.size(), 3);
    EXPECT_TRUE(lines.at(0).endsWith(QStringLiteral(" ttyS0: Входящий\\nвызов").toUtf8())) << lines.at(0).constData();
    EXPECT_TRUE(lines.at(1).endsWith(" ERROR ttyS0: failed"));
    EXPECT_EQ(told, 2);
    for (int i = 0; i < 20; ++i)
        journal.addRecord(0, QStringLiteral("s"), QString(50, QLatin1Char('x')));
    EXPECT_LT(QFileInfo(path).size(), 400);
    EXPECT_TRUE(QFile::exists(path + QStringLiteral(".old")));
}

TEST(TerminalView, Bars)
{
    EXPECT_EQ(progressBar(0, 100, 10), QStringLiteral("[----------]   0%"));
    EXPECT_EQ(progressBar(50, 100, 10), QStringLiteral("[#####-----]  50%"));
    EXPECT_EQ(progressBar(100, 100, 10), QStringLiteral("[##########] 100%"));
    EXPECT_EQ(progressBar(0, 0, 10), QStringLiteral("[##########] 100%")) << "an empty file is whole";
    EXPECT_EQ(progressBar(300, 100, 10), QStringLiteral("[##########] 100%"));
    EXPECT_EQ(progressBar(99, 100, 10), QStringLiteral("[#########-]  99%"));
}

TEST(TerminalView, Sizes)
{
    EXPECT_EQ(sizeText(0), QStringLiteral("0 B"));
    EXPECT_EQ(sizeText(999), QStringLiteral("999 B"));
    EXPECT_EQ(sizeText(1500), QStringLiteral("1.5 kB"));
    EXPECT_EQ(sizeText(999999), QStringLiteral("1.0 MB"));
    EXPECT_EQ(sizeText(2500000000), QStringLiteral("2.5 GB"));
}

TEST(TerminalView, PictureFitsTheTerminalAndShowsNoControlCharacters)
{
    Picture picture;
    picture.title = QStringLiteral("title");
    picture.ports = {{{1, 2, QStringLiteral("ttyS0"), QStringLiteral("Свободен"), 1500, 0}, 750, 0}};
    FileProgress file;
    file.channelName = QStringLiteral("ttyS0");
    file.fileName = QStringLiteral("evil\x1B[2J") + QString(300, QLatin1Char('n'));
    file.size = 100;
    file.done = 50;
    picture.files = {file};
    picture.journal = QStringList{QString(200, QLatin1Char('j'))};
    const QStringList lines = renderPicture(picture, 80);
    ASSERT_EQ(lines.size(), 4);
    EXPECT_EQ(lines.at(1), QStringLiteral("ttyS0          Свободен  in 1.5 kB (750 B/s)  out 0 B (0 B/s)"));
    EXPECT_TRUE(lines.at(2).startsWith(QStringLiteral("  <- [###############---------------]  50% 50 B of 100 B  evil\uFFFD[2J")));
    for (const QString& line : lines) {
        EXPECT_LE(line.size(), 80);
        EXPECT_FALSE(line.contains(QLatin1Char('\x1B')));
    }
}
