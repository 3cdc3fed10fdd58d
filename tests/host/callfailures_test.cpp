#include "host/callfailures.h"

#include <gtest/gtest.h>

using namespace host;

namespace {

const QString bob = QStringLiteral("Bob");
const QString bobby = QStringLiteral("Bobby");
const QString first = QStringLiteral("ttyS0");
const QString second = QStringLiteral("ttyS1");
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
    failures.sessionEnded(first, bob, QStringLiteral("not known here"));
    EXPECT_EQ(failures.reason(bob), QStringLiteral("not known here"));
    EXPECT_EQ(failures.reason(bobby), QString());
    failures.sessionEnded(second, QString(), QStringLiteral("silence"));
    EXPECT_EQ(failures.reason(bobby), QStringLiteral("silence")) << "who answered said no name";
    EXPECT_EQ(failures.reason(bob), QStringLiteral("not known here"));
    failures.sessionEnded(first, bob, QString());
    EXPECT_EQ(failures.reason(bob), QString()) << "it ended well";
    failures.sessionEnded(first, QStringLiteral("Carol"), QStringLiteral("x"));
    EXPECT_EQ(failures.reason(QStringLiteral("Carol")), QString()) << "she was never called";
}
