// What people and programs are shown of an installation, whole: the two shapes of "status", the
// state file that a running host keeps, and what it prints while it runs.
#include "host/hoststate.h"
#include "host/program/statusreport.h"
#include "host/program/terminalview.h"
#include "tests/host/recordedrun.h"
#include "tests/host/storetools.h"

#include <QRegularExpression>
#include <gtest/gtest.h>

#include <unistd.h>

using namespace host;
using namespace hosttest;

namespace {

const QString ownState = QStringLiteral("/transport-host.state");

QByteArray bytesOf(char byte)
{
    return QByteArray(32, byte);
}

// The fingerprint of 32 bytes 'k', which tests/host/statuscommand_test.cpp has from elsewhere.
const QString fingerprint = QStringLiteral("95114-81512-78646-12888-08988-26535");

Status statusOfEverything()
{
    Status status;
    status.identity = Identity();
    status.identity->name = QStringLiteral("Норд");
    for (const char* name : {"ttyS0", "ttyS1", "ttyS2"}) {
        ComPortSettings port;
        port.portName = QString::fromLatin1(name);
        port.enabled = port.portName != QLatin1String("ttyS2");
        port.baudRate = 9600;
        status.settings.ports.append(port);
    }
    QueuedMessage waiting;
    waiting.key = QStringLiteral("00000001");
    waiting.id = 0x1a;
    waiting.abonent = QStringLiteral("Bob");
    waiting.fileName = QStringLiteral("a.txt");
    waiting.size = 1500;
    waiting.sha256 = bytesOf('\x5a');
    waiting.queued = QDateTime(QDate(2026, 5, 4), QTime(3, 2, 1), Qt::UTC);
    waiting.reason.kind = WaitReason::Kind::NoModem;
    QueuedMessage moving = waiting;
    moving.key = QStringLiteral("00000002");
    moving.id = 0x1b;
    status.queue = {waiting, moving};
    ReceivedMessage received;
    received.key = QStringLiteral("00000003");
    received.id = 0x1c;
    received.abonent = QStringLiteral("Carol");
    received.fileName = QStringLiteral("b.txt");
    received.path = QStringLiteral("/inbox/b.txt");
    received.size = 7;
    received.sha256 = bytesOf('\x5b');
    received.received = QDateTime(QDate(2026, 5, 4), QTime(3, 2, 2), Qt::UTC);
    ReceivedMessage strangers = received;
    strangers.key = QStringLiteral("00000004");
    strangers.isProved = false;
    strangers.publicKey = bytesOf('k');
    strangers.claimedName = QStringLiteral("Bob");
    status.inbox = {received, strangers};
    status.usage.all = {14, 2, 6};
    status.usage.unproved = {7, 1, 3};
    status.usage.abonents = {{QStringLiteral("Carol"), {7, 1, 3}}};
    status.usage.room = {1000, 2000};
    status.running = {
        {"process", 77},
        {"failedHandshakes", 1},
        {"sending", QJsonObject{{"000000000000001b", "being sent, 5 of 1500 bytes"}}},
        {"ports", QJsonArray{QJsonObject{{"name", "ttyS0"}, {"state", "Свободен"}, {"received", 2500}, {"sent", 10}}}}};
    return status;
}

std::string printed(const Status& status)
{
    QString text;
    QTextStream out(&text);
    printStatus(status, out);
    out.flush();
    return text.toStdString();
}

std::string jsonText(const QJsonObject& object)
{
    return jsonTexts({object}).front();
}

// What the view has printed, with the times taken out.
std::string shownBy(std::FILE* out)
{
    std::rewind(out);
    QFile file;
    EXPECT_TRUE(file.open(out, QIODevice::ReadOnly));
    QString text = QString::fromUtf8(file.readAll());
    std::fclose(out);
    return text.replace(QRegularExpression(QStringLiteral("\\d\\d:\\d\\d:\\d\\d")), QStringLiteral("TIME"))
        .toStdString();
}

FileProgress progress(bool isOutgoing, FileProgress::State state, qint64 doneBytes, const QString& text = QString())
{
    FileProgress row;
    row.file = {isOutgoing, 1, QStringLiteral("f.txt"), QByteArray(), 1000, doneBytes};
    row.peer = QStringLiteral("Bob");
    row.channelName = QStringLiteral("ttyS0");
    row.state = state;
    row.text = text;
    return row;
}

} // namespace

// ---- status ----

TEST(StatusText, ShowsEverything)
{
    EXPECT_EQ(printed(statusOfEverything()),
              "name:  Норд\n"
              "host:  running, process 77, 1 call failed to prove who called\n"
              "ports: 3\n"
              "  ttyS0  Свободен, in 2.5 kB, out 10 B\n"
              "  ttyS1  (not in use)\n"
              "  ttyS2  disabled\n"
              "queue: 2\n"
              "  00000001  to Bob  a.txt  1.5 kB  no modem is ready\n"
              "  00000002  to Bob  a.txt  1.5 kB  being sent, 5 of 1500 bytes\n"
              "inbox: 2\n"
              "  00000003  from Carol  b.txt  7 B  /inbox/b.txt\n"
              "  00000004  from UNPROVED " +
                  fingerprint.toStdString() +
                  ", calls itself 'Bob'  b.txt  7 B  /inbox/b.txt\n"
                  "room:  14 B of 34.4 GB, 2 of 50000 messages, 6 of 200000 inodes\n"
                  "  unproved together  7 B of 16.8 MB, 1 of 50 messages, 3 of 200 inodes\n");
}

TEST(StatusText, OfAnInstallationThatIsNewOrCannotBeRead)
{
    Status status;
    status.identity = Identity();
    ComPortSettings port;
    port.portName = QStringLiteral("ttyS0");
    port.enabled = true;
    status.settings.ports = {port};
    const std::string rest = "host:  not running\n"
                             "ports: 1\n"
                             "  ttyS0  (no host runs)\n"
                             "queue: 0\n"
                             "inbox: 0\n"
                             "room:  0 B of 34.4 GB, 0 of 50000 messages, 0 of 200000 inodes\n";
    EXPECT_EQ(printed(status), "name:  (none: transport-host name NAME)\n" + rest);
    status.identity.reset();
    EXPECT_EQ(printed(status), "name:  (not known: its file cannot be read)\n" + rest);
}

TEST(StatusJson, ShowsEverything)
{
    const auto share = [](double bytes, double messages, double inodes) {
        return QJsonObject{{"bytes", bytes}, {"messages", messages}, {"inodes", inodes}};
    };
    Status status = statusOfEverything();
    status.troubles = QStringList{QStringLiteral("one")};
    const QString sha256 = QString::fromLatin1(bytesOf('\x5a').toHex());
    const QString otherSha256 = QString::fromLatin1(bytesOf('\x5b').toHex());
    const QJsonObject waiting{{"number", "00000001"},
                              {"id", "000000000000001a"},
                              {"abonent", "Bob"},
                              {"file", "a.txt"},
                              {"size", 1500},
                              {"sha256", sha256},
                              {"why", "noModem"},
                              {"reason", "no modem is ready"},
                              {"queued", "2026-05-04T03:02:01Z"}};
    QJsonObject moving = waiting;
    moving[QStringLiteral("number")] = "00000002";
    moving[QStringLiteral("id")] = "000000000000001b";
    moving[QStringLiteral("reason")] = "being sent, 5 of 1500 bytes";
    const QJsonObject received{{"number", "00000003"},
                               {"id", "000000000000001c"},
                               {"abonent", "Carol"},
                               {"proved", true},
                               {"file", "b.txt"},
                               {"path", "/inbox/b.txt"},
                               {"size", 7},
                               {"sha256", otherSha256},
                               {"received", "2026-05-04T03:02:02Z"}};
    QJsonObject strangers = received;
    strangers[QStringLiteral("number")] = "00000004";
    strangers[QStringLiteral("proved")] = false;
    strangers[QStringLiteral("fingerprint")] = fingerprint;
    strangers[QStringLiteral("claimedName")] = "Bob";
    constexpr double gibi = 1073741824;
    const QJsonObject room{
        {"all", QJsonObject{{"used", share(14, 2, 6)}, {"limit", share(32 * gibi, 50000, 200000)}}},
        {"unproved", QJsonObject{{"used", share(7, 1, 3)}, {"limit", share(gibi / 64, 50, 200)}}},
        {"abonents", QJsonArray{QJsonObject{
                         {"abonent", "Carol"}, {"used", share(7, 1, 3)}, {"limit", share(8 * gibi, 10000, 40000)}}}},
        {"freeBytes", 1000},
        {"freeInodes", 2000}};
    const QJsonObject expected{
        {"name", "Норд"},
        {"troubles", QJsonArray{"one"}},
        {"queue", QJsonArray{waiting, moving}},
        {"inbox", QJsonArray{received, strangers}},
        {"room", room},
        {"ports", QJsonArray{QJsonObject{{"name", "ttyS0"}, {"enabled", true}, {"baud", 9600}},
                             QJsonObject{{"name", "ttyS1"}, {"enabled", true}, {"baud", 9600}},
                             QJsonObject{{"name", "ttyS2"}, {"enabled", false}, {"baud", 9600}}}},
        {"failedHandshakes", 1},
        {"running", status.running}};
    EXPECT_EQ(jsonText(statusJson(status)), jsonText(expected));
}

// ---- the state file ----

TEST(HostState, IsWrittenWholeAndReadBack)
{
    const QString path = rig::installRoot() + ownState;
    HostState state;
    state.ports = {{1, 2, QStringLiteral("ttyS0"), QStringLiteral("Свободен"), 2500, 10}};
    state.files = {progress(true, FileProgress::State::Moving, 5), progress(false, FileProgress::State::Moving, 5),
                   progress(true, FileProgress::State::Whole, 1000),
                   progress(true, FileProgress::State::Waiting, 1000)};
    for (int i = 0; i < state.files.size(); ++i)
        state.files[i].file.messageId = quint64(0x1a + i);
    state.calling = QStringList{QStringLiteral("Bob")};
    state.connected = QStringList{QStringLiteral("Carol")};
    state.limits.ofAbonent = {1, 2, 3};
    state.limits.ofUnproved = {4, 5, 6};
    state.limits.ofAll = {7, 8, 9};
    state.more[QStringLiteral("failedHandshakes")] = 11;
    HostStateFile(path).write(state);
    const auto share = [](int bytes, int messages, int inodes) {
        return QJsonObject{{"bytes", bytes}, {"messages", messages}, {"inodes", inodes}};
    };
    const QJsonObject read = readHostState(path);
    EXPECT_EQ(
        jsonText(read),
        jsonText({{"process", getpid()},
                  {"ports",
                   QJsonArray{QJsonObject{{"name", "ttyS0"}, {"state", "Свободен"}, {"received", 2500}, {"sent", 10}}}},
                  {"sending", QJsonObject{{"000000000000001a", "being sent, 5 of 1000 bytes"},
                                          {"000000000000001d", "sent, waiting for their word"}}},
                  {"calling", QJsonArray{"bob"}},
                  {"connected", QJsonArray{"carol"}},
                  {"limits",
                   QJsonObject{{"abonent", share(1, 2, 3)}, {"unproved", share(4, 5, 6)}, {"all", share(7, 8, 9)}}},
                  {"failedHandshakes", 11}}));
    EXPECT_EQ(limitsOf(read).ofUnproved.messages, 5);
    EXPECT_EQ(failedHandshakesOf(read), 11);
    EXPECT_EQ(activityFor(read, 0x1a, QStringLiteral("Carol")), QStringLiteral("being sent, 5 of 1000 bytes"));
    EXPECT_EQ(activityFor(read, 0x99, QStringLiteral("Carol")), QStringLiteral("connected, its turn comes"));
    EXPECT_EQ(activityFor(read, 0x99, QStringLiteral("BOB")), QStringLiteral("being called"));
    EXPECT_EQ(activityFor(read, 0x99, QStringLiteral("Dave")), QString());
}

TEST(HostState, OfAProcessThatIsGoneIsNone)
{
    const QString path = rig::installRoot() + ownState;
    EXPECT_EQ(readHostState(path), QJsonObject());
    for (const char* process : {"0", "-1", "2147483647"}) {
        writeFile(path, QByteArray("{\"process\":") + process + ",\"calling\":[]}");
        EXPECT_EQ(readHostState(path), QJsonObject()) << process;
    }
    writeFile(path, "{\"process\":1,\"calling\":[]}");
    EXPECT_FALSE(readHostState(path).isEmpty()) << "also of a process of another user";
}

TEST(HostState, LimitsThatAreNoNumbersAreTheUsualOnes)
{
    const InboxLimits usual;
    const InboxLimits told =
        limitsOf({{"limits", QJsonObject{{"abonent", QJsonObject{{"bytes", -1}}},
                                         {"all", QJsonObject{{"messages", "many"}, {"inodes", 0}}}}}});
    EXPECT_EQ(told.ofAbonent.bytes, usual.ofAbonent.bytes);
    EXPECT_EQ(told.ofAll.messages, usual.ofAll.messages);
    EXPECT_EQ(told.ofAll.inodes, 0) << "nothing is a number, too";
    EXPECT_EQ(failedHandshakesOf({}), 0);
}

TEST(HostState, AFileThatIsGoneIsWrittenAgain)
{
    const QString path = rig::installRoot() + ownState;
    HostStateFile file(path);
    file.write(HostState());
    ASSERT_TRUE(QFile::remove(path));
    file.write(HostState());
    EXPECT_TRUE(QFile::exists(path));
}

// ---- what a running host prints ----

TEST(Picture, EachLineOfIt)
{
    Picture picture;
    picture.title = QStringLiteral("title");
    picture.nowMs = 4000;
    picture.ports = {{{1, 2, QStringLiteral("ttyS0"), QStringLiteral("Свободен"), 1500, 10}, 750, 5}};
    FileProgress moving = progress(false, FileProgress::State::Moving, 500);
    moving.beganMs = 2000;
    moving.resumedFrom = 300;
    FileProgress elsewhere = moving;
    elsewhere.channelName = QStringLiteral("ttyS9");
    picture.files = {moving,
                     progress(true, FileProgress::State::Waiting, 1000),
                     progress(true, FileProgress::State::Whole, 1000),
                     progress(true, FileProgress::State::Whole, 1000, QStringLiteral("received before")),
                     progress(false, FileProgress::State::Whole, 1000, QStringLiteral("/inbox/f.txt")),
                     progress(true, FileProgress::State::Failed, 0, QStringLiteral("no room")),
                     elsewhere};
    picture.journal = QStringList{QStringLiteral("line")};
    const std::string all = "[##############################] 100% 1.0 kB of 1.0 kB  f.txt  ";
    EXPECT_EQ(renderPicture(picture, 200).join(QLatin1Char('\n')).toStdString(),
              "title\n"
              "ttyS0          Свободен  in 1.5 kB (750 B/s)  out 10 B (5 B/s)\n"
              "  <- [###############---------------]  50% 500 B of 1.0 kB  f.txt  100 B/s\n"
              "  -> " +
                  all + "sent, waiting for their word\n  -> " + all + "done, hash verified\n  -> " + all +
                  "received before\n  <- " + all +
                  "done, hash verified\n"
                  "  -> [------------------------------]   0% 0 B of 1.0 kB  f.txt  no room\n"
                  "line");
}

TEST(PlainView, PrintsJournalStatesAndEachTenthOfAFile)
{
    TransportHost host{HostOptions()};
    std::FILE* const out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    TerminalView view(&host, ViewKind::Plain, out);
    JournalRecord record;
    record.time = QDateTime(QDate(2026, 5, 4), QTime(3, 2, 1, 7));
    record.isError = true;
    record.source = QStringLiteral("ttyS0");
    record.text = QStringLiteral("no carrier");
    emit host.journalRecord(record);
    ChannelRow row;
    row.name = QStringLiteral("ttyS0");
    row.state = QStringLiteral("Свободен");
    emit host.stateChanged(row);
    // The speed goes by the clock; of what was resumed whole it is nothing.
    for (const qint64 doneBytes : {0, 99, 100, 199, 1000}) {
        FileProgress file = progress(true, FileProgress::State::Moving, doneBytes);
        file.resumedFrom = doneBytes;
        emit host.fileChanged(file);
    }
    emit host.fileChanged(progress(true, FileProgress::State::Whole, 1000));
    view.finish();
    const std::string head = "TIME [ttyS0]  -> [";
    EXPECT_EQ(shownBy(out), "2026-05-04 TIME.007 ERROR ttyS0: no carrier\n"
                            "TIME [ttyS0] Свободен\n" +
                                head + "------------------------------]   0% 0 B of 1.0 kB  f.txt  0 B/s\n" + head +
                                "###---------------------------]  10% 100 B of 1.0 kB  f.txt  0 B/s\n" + head +
                                "##############################] 100% 1.0 kB of 1.0 kB  f.txt  0 B/s\n");
}

TEST(LiveView, LeavesTheLastPictureWithTheLatestLinesOfTheJournal)
{
    TransportHost host{HostOptions()};
    std::FILE* const out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    TerminalView view(&host, ViewKind::Live, out);
    for (int i = 1; i <= 7; ++i) {
        JournalRecord record;
        record.time = QDateTime::currentDateTime();
        record.isError = i == 7;
        record.source = QStringLiteral("ttyS0");
        record.text = QString::number(i);
        emit host.journalRecord(record);
    }
    view.finish();
    view.finish();
    const std::string picture = "transport-host    TIME  queued 0, delivered 0, received 0\x1B[K\n"
                                "TIME ttyS0: 2\x1B[K\n"
                                "TIME ttyS0: 3\x1B[K\n"
                                "TIME ttyS0: 4\x1B[K\n"
                                "TIME ttyS0: 5\x1B[K\n"
                                "TIME ttyS0: 6\x1B[K\n"
                                "TIME ! ttyS0: 7\x1B[K\n"
                                "\x1B[J";
    EXPECT_EQ(shownBy(out), picture + "\x1B[7A" + picture) << "the second over the first";
}

TEST(LiveView, DrawsOverAPictureOfOneLine)
{
    TransportHost host{HostOptions()};
    std::FILE* const out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    TerminalView view(&host, ViewKind::Live, out);
    view.finish();
    view.finish();
    const std::string picture = "transport-host    TIME  queued 0, delivered 0, received 0\x1B[K\n\x1B[J";
    EXPECT_EQ(shownBy(out), picture + "\x1B[1A" + picture);
}

TEST(QuietView, PrintsNothing)
{
    TransportHost host{HostOptions()};
    std::FILE* const out = std::tmpfile();
    ASSERT_NE(out, nullptr);
    TerminalView view(&host, ViewKind::Quiet, out);
    emit host.journalRecord(JournalRecord());
    emit host.stateChanged(ChannelRow());
    emit host.fileChanged(progress(true, FileProgress::State::Moving, 0));
    view.finish();
    EXPECT_EQ(shownBy(out), "");
}
