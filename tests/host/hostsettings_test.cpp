#include "common/global.h"
#include "host/channel/channelstable.h"
#include "host/channel/hostjournal.h"
#include "host/installation/hostsettings.h"
#include "host/program/terminalview.h"
#include "host/transporthost.h"
#include "tests/host/storetools.h"

#include <gtest/gtest.h>

#include <atomic>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

using namespace host;
using namespace hosttest;

TEST(HostSettings, TheNameIsKept)
{
    Identity identity;
    ASSERT_EQ(loadIdentity(&identity), QString());
    EXPECT_EQ(identity.name, QString());
    EXPECT_FALSE(QFile::exists(Global::generalSettingsFilePath())) << "looking writes nothing";
    ASSERT_EQ(saveOwnName(QStringLiteral("Отдел № 5, \"север\"")), QString());
    Identity again;
    ASSERT_EQ(loadIdentity(&again), QString());
    EXPECT_EQ(again.name, QStringLiteral("Отдел № 5, \"север\""));
}

// Installations used to have a random identifier beside their name.
TEST(HostSettings, AFileOfAnEarlierVersionStillReads)
{
    const QString path = Global::generalSettingsFilePath();
    const QByteArray old = "[Host]\ninstallationId=00112233445566778899aabbccddeeff\nkeyFingerprint=1-2\nname=North\n";
    writeFile(path, old);
    Identity identity;
    ASSERT_EQ(loadIdentity(&identity), QString());
    EXPECT_EQ(identity.name, QStringLiteral("North"));
    EXPECT_EQ(identity.keyFingerprint, QStringLiteral("1-2"));
    EXPECT_EQ(readAll(path), old);
    ASSERT_EQ(saveOwnName(QStringLiteral("South")), QString());
    EXPECT_TRUE(readAll(path).contains("name=South\n"));
}

// What a crash, a bad disk or a hand may leave; of most of it Qt says that all is well.
TEST(HostSettings, DamageIsToldWithTheCureAndNothingIsWrittenOverIt)
{
    const QString path = Global::generalSettingsFilePath();
    for (const QByteArray& damage :
         {QByteArray("[Host\nname=North\n"), QByteArray(200, '\0'), QByteArray(), QByteArray("\n"),
          QByteArray("[Host]\nname=North\nins"), QByteArray("[Host]\nname=\xff\xfe\n"), QByteArray("\x01\x02binary")}) {
        writeFile(path, damage);
        Identity identity;
        const QString error = loadIdentity(&identity);
        EXPECT_EQ(error.toStdString(),
                  path.toStdString() + " is damaged: put back a copy, or mend it by hand, or move it away and set the "
                                       "name again (its [Host] section holds this installation's name)")
            << damage.toHex().constData();
        EXPECT_EQ(saveOwnName(QStringLiteral("South")), error);
        EXPECT_EQ(readAll(path), damage);
    }
    writeFile(path, "; by hand\n[Host]\nname = North\n\n[Other]\nx=1\n");
    Identity identity;
    const QString error = loadIdentity(&identity);
    EXPECT_EQ(error, QString()) << qPrintable(error);
    EXPECT_EQ(identity.name, QStringLiteral("North"));
}

TEST(HostSettings, ComSettingsGoWhereThePluginLooks)
{
    ChannelComSettings settings;
    ASSERT_EQ(loadComSettings(&settings), QString());
    EXPECT_TRUE(settings.ports.isEmpty());
    ComPortSettings port;
    port.portName = QStringLiteral("ttyS0");
    settings.ports = {port};
    ASSERT_EQ(saveComSettings(settings), QString());
    EXPECT_EQ(readAll(rig::installRoot() + QStringLiteral("/settings/channelCom.conf")), settings.toByteArray());
    ChannelComSettings read;
    ASSERT_EQ(loadComSettings(&read), QString());
    EXPECT_EQ(read.ports.size(), 1);
}

TEST(ChannelsTable, KeepsStatesAndTraffic)
{
    QStringList told;
    ChannelsTable table([&](const ChannelRow& row) {
        told.append(QString::number(row.id) + row.state + (row.isGone ? QStringLiteral(" gone") : QString()));
    });
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
    EXPECT_EQ(told.last(), QStringLiteral("1c gone"));
    EXPECT_EQ(told.size(), 4);
}

TEST(HostJournal, WritesOneLineARecordAndGivesWayWhenLarge)
{
    const QString path = rig::installRoot() + QStringLiteral("/data/0/journal.txt");
    int told = 0;
    HostJournal journal(
        path, [&](const JournalRecord&) { ++told; }, 200);
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

// Ports add, change and remove their rows while the host reads them.
TEST(ChannelsTable, TwoThreadsAtOnce)
{
    std::atomic<int> told{0};
    ChannelsTable table([&](const ChannelRow&) { ++told; });
    constexpr int rounds = 2000;
    const auto port = [&](const QString& name) {
        for (int i = 0; i < rounds; ++i) {
            const int id = table.addChannel(2, name, QStringLiteral("a"));
            table.setState(id, QStringLiteral("b%1").arg(i));
            table.addReceivedBytes(id, 3);
            table.addSentBytes(id, 5);
            table.removeChannel(id);
        }
        const int last = table.addChannel(2, name, QString());
        for (int i = 0; i < rounds; ++i)
            table.addReceivedBytes(last, 1);
    };
    std::thread one(port, QStringLiteral("one"));
    std::thread two(port, QStringLiteral("two"));
    while (told < 4 * rounds) {
        for (const ChannelRow& row : table.rows())
            EXPECT_TRUE(row.name == QLatin1String("one") || row.name == QLatin1String("two"));
    }
    one.join();
    two.join();
    ASSERT_EQ(table.rows().size(), 2);
    EXPECT_EQ(table.rows().at(0).receivedBytes, rounds);
    EXPECT_EQ(table.rows().at(1).receivedBytes, rounds);
    EXPECT_EQ(told, 6 * rounds + 2);
}

TEST(HostJournal, LinesOfTwoThreadsDoNotMix)
{
    const QString path = rig::installRoot() + QStringLiteral("/data/0/journal.txt");
    constexpr int rounds = 300;
    HostJournal journal(path, {}, 8 * 1024 * 1024);
    const auto port = [&](char letter) {
        for (int i = 0; i < rounds; ++i)
            journal.addRecord(0, QString(QLatin1Char(letter)), QString(200, QLatin1Char(letter)));
    };
    std::thread one(port, 'a');
    std::thread two(port, 'b');
    one.join();
    two.join();
    QList<QByteArray> lines = readAll(path).split('\n');
    EXPECT_EQ(lines.takeLast(), QByteArray());
    ASSERT_EQ(lines.size(), 2 * rounds);
    for (const QByteArray& line : qAsConst(lines))
        ASSERT_TRUE(line.endsWith(" a: " + QByteArray(200, 'a')) || line.endsWith(" b: " + QByteArray(200, 'b')))
            << line.constData();
}

// Two ports that write the first records of a process at one moment.
TEST(HostJournal, TheFirstTwoLinesHaveTheirStamps)
{
    const auto bothStamped = [] {
        std::atomic<int> ready{0};
        std::atomic<int> stamped{0};
        const auto port = [&] {
            ++ready;
            while (ready < 2) {
            }
            JournalRecord record;
            record.time = QDateTime::fromMSecsSinceEpoch(1'700'000'000'000, Qt::UTC);
            stamped += record.line().startsWith(QLatin1String("2")) ? 1 : 0;
        };
        std::thread one(port);
        std::thread two(port);
        one.join();
        two.join();
        return stamped == 2;
    };
    constexpr int processes = 500;
    for (int i = 0; i < processes; ++i) {
        const pid_t child = fork();
        ASSERT_GE(child, 0);
        if (child == 0)
            _exit(bothStamped() ? 0 : 1);
        int status = -1;
        ASSERT_EQ(waitpid(child, &status, 0), child);
        ASSERT_EQ(status, 0) << "process " << i;
    }
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
    FileProgress row;
    row.channelName = QStringLiteral("ttyS0");
    row.file.fileName = QStringLiteral("evil\x1B[2J") + QString(300, QLatin1Char('n'));
    row.file.sizeBytes = 100;
    row.file.doneBytes = 50;
    picture.files = {row};
    picture.journal = QStringList{QString(200, QLatin1Char('j'))};
    const Picture::Port hostile{{2, 2, QStringLiteral("evil\x1B[2J"), QStringLiteral("evil\x1B[2J"), 0, 0}, 0, 0};
    picture.ports.append(hostile);
    const QStringList lines = renderPicture(picture, 80);
    ASSERT_EQ(lines.size(), 5);
    EXPECT_EQ(lines.at(1), QStringLiteral("ttyS0          Свободен  in 1.5 kB (750 B/s)  out 0 B (0 B/s)"));
    EXPECT_TRUE(lines.at(2).startsWith(
        QStringLiteral("  <- [###############---------------]  50% 50 B of 100 B  evil\uFFFD[2J")));
    for (const QString& line : lines) {
        EXPECT_LE(line.size(), 80);
        EXPECT_FALSE(line.contains(QLatin1Char('\x1B')));
    }
}

// Names, states and answers come from modems and peers: none of it is for the terminal to obey.
TEST(TerminalView, NothingRawReachesTheTerminal)
{
    const QString raw = QStringLiteral("\x1B]0;x\x07\u061C\u202Eend");
    for (const ViewKind kind : {ViewKind::Plain, ViewKind::Live}) {
        TransportHost host{HostOptions()};
        std::FILE* const out = std::tmpfile();
        ASSERT_NE(out, nullptr);
        TerminalView view(&host, kind, out);
        JournalRecord record;
        record.time = QDateTime::currentDateTime();
        record.source = QStringLiteral("source") + raw;
        record.text = QStringLiteral("text") + raw;
        emit host.journalRecord(record);
        ChannelRow row;
        row.name = QStringLiteral("port") + raw;
        row.state = QStringLiteral("state") + raw;
        emit host.stateChanged(row);
        view.showTrouble(QStringLiteral("trouble") + raw);
        view.finish();
        std::rewind(out);
        QFile file;
        ASSERT_TRUE(file.open(out, QIODevice::ReadOnly));
        const QString shown = QString::fromUtf8(file.readAll());
        std::fclose(out);
        EXPECT_TRUE(shown.contains(QStringLiteral("text"))) << qPrintable(shown);
        EXPECT_TRUE(shown.contains(QStringLiteral("trouble"))) << qPrintable(shown);
        for (const QString& part :
             {QStringLiteral("\x1B]"), QStringLiteral("\x07"), QStringLiteral("\u061C"), QStringLiteral("\u202E")})
            EXPECT_FALSE(shown.contains(part)) << qPrintable(shown);
    }
}
