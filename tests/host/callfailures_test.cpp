#include "host/calls/callfailures.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

const QString bob = QStringLiteral("Bob");
const QString bobby = QStringLiteral("Bobby");
const QString first = QStringLiteral("ttyS0");
const QString second = QStringLiteral("ttyS1");
const QString opens = QStringLiteral("Открытие COM порта");
const QString busy = QStringLiteral("Не удалось установить соединение: BUSY");
const QString noCarrier = QStringLiteral("Не удалось установить соединение: NO CARRIER");

QString dials(const QString& abonent)
{
    return QStringLiteral("Вызов '%1' (102). Запись команды: ATD102").arg(abonent);
}

} // namespace

TEST(CallFailures, TheCallingPortsLastWordIsTheReason)
{
    CallFailures failures;
    EXPECT_EQ(failures.reason(bob), QString());
    failures.callPlaced(bob);
    failures.journalRecord(first, dials(bob));
    failures.journalRecord(first, busy);
    failures.notConnected(bob);
    EXPECT_EQ(failures.reason(bob), busy);
    EXPECT_EQ(failures.reason(QStringLiteral("b o b")), busy) << "the same abonent";
}

TEST(CallFailures, OtherPortsDoNotMatter)
{
    CallFailures failures;
    failures.callPlaced(bob);
    failures.callPlaced(bobby);
    failures.journalRecord(first, dials(bob));
    failures.journalRecord(second, dials(bobby));
    failures.journalRecord(first, busy);
    failures.journalRecord(second, noCarrier);
    failures.notConnected(bob);
    EXPECT_EQ(failures.reason(bob), busy);
    EXPECT_EQ(failures.reason(bobby), QString()) << "not failed yet";
    failures.journalRecord(first, QStringLiteral("Отправка строки инициализации: ATZ"));
    failures.notConnected(bobby);
    EXPECT_EQ(failures.reason(bobby), noCarrier);
    EXPECT_EQ(failures.reason(bob), busy);
}

TEST(CallFailures, NoFreePortIsTheChannelsOwnWord)
{
    CallFailures failures;
    const QString text = QStringLiteral("Не удалось вызвать абонента 'Bob' т.к. не удалось найти свободный COM порт");
    failures.callPlaced(bob);
    failures.journalRecord(QStringLiteral("COM"), text);
    failures.journalRecord(first, QStringLiteral("Входящий вызов. Запись команды: ATA"));
    failures.notConnected(bob);
    EXPECT_EQ(failures.reason(bob), text);
}

TEST(CallFailures, ANewCallForgetsTheReason)
{
    CallFailures failures;
    failures.callPlaced(bob);
    failures.journalRecord(first, dials(bob));
    failures.journalRecord(first, busy);
    failures.notConnected(bob);
    failures.callPlaced(bob);
    EXPECT_EQ(failures.reason(bob), QString());
    failures.notConnected(bob);
    EXPECT_EQ(failures.reason(bob), QString()) << "nobody said that it was called";
}

TEST(CallFailures, ASessionThatEndsEarlySaysWhy)
{
    CallFailures failures;
    failures.callPlaced(bob);
    failures.callPlaced(bobby);
    failures.journalRecord(first, dials(bob));
    failures.journalRecord(second, dials(bobby));
    failures.sessionEnded(bob, QStringLiteral("not known here"));
    EXPECT_EQ(failures.reason(bob), QStringLiteral("not known here"));
    EXPECT_EQ(failures.reason(bobby), QString());
    failures.sessionEnded(bobby, QStringLiteral("silence"));
    EXPECT_EQ(failures.reason(bobby), QStringLiteral("silence"));
    EXPECT_EQ(failures.reason(bob), QStringLiteral("not known here"));
    failures.sessionEnded(bob, QString());
    EXPECT_EQ(failures.reason(bob), QString()) << "it ended well";
    failures.sessionEnded(QStringLiteral("Carol"), QStringLiteral("x"));
    EXPECT_EQ(failures.reason(QStringLiteral("Carol")), QString()) << "she was never called";
}

// The texts of a port in the order in which the channel's worker gives them.
TEST(CallFailures, APortThatDoesSomethingElseHasLostItsCall)
{
    CallFailures failures;
    failures.callPlaced(bob);
    EXPECT_EQ(failures.portState(first, QStringLiteral("Вызов 'Bob' (102)")), QStringList());
    EXPECT_EQ(failures.journalRecord(first, dials(bob)), QStringList{bob});
    EXPECT_EQ(failures.portState(second, opens), QStringList()) << "another port";
    failures.journalRecord(first, QStringLiteral("COM port error: 9. Input/output error"));
    EXPECT_EQ(failures.portState(first, opens), QStringList{bob});
    EXPECT_EQ(failures.reason(bob), QStringLiteral("COM port error: 9. Input/output error"));
    EXPECT_EQ(failures.portState(first, QStringLiteral("COM порт открыт")), QStringList()) << "told once";
}

TEST(CallFailures, APortThatIsRemovedHasLostItsCall)
{
    CallFailures failures;
    failures.callPlaced(bob);
    failures.journalRecord(first, dials(bob));
    EXPECT_EQ(failures.portGone(second), QStringList());
    EXPECT_EQ(failures.portGone(first), QStringList{bob});
    EXPECT_EQ(failures.portGone(first), QStringList());
}

TEST(CallFailures, ACallIsNotOverWhileItLasts)
{
    CallFailures failures;
    failures.callPlaced(bob);
    failures.journalRecord(first, dials(bob));
    for (const char* state :
         {"Вызов 'Bob' (102)", "Соединение установлено: CONNECT 33600", "Установлено соединение с 'Carol'"})
        EXPECT_EQ(failures.portState(first, QString::fromUtf8(state)), QStringList()) << state;
    failures.disconnected(bob);
    EXPECT_EQ(failures.portState(first, opens), QStringList()) << "its outcome was told";
}

TEST(CallFailures, AFailedCallIsNotLostAsWell)
{
    CallFailures failures;
    failures.callPlaced(bob);
    failures.journalRecord(first, dials(bob));
    EXPECT_EQ(failures.portState(first, busy), QStringList()) << "the signal is on its way";
    failures.journalRecord(first, busy);
    failures.notConnected(bob);
    EXPECT_EQ(failures.portState(first, opens), QStringList());
    EXPECT_EQ(failures.reason(bob), busy);
    failures.callPlaced(bob);
    EXPECT_EQ(failures.portState(first, QStringLiteral("Свободен")), QStringList()) << "that was the call before";
}
