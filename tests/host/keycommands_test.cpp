// Keys as the program shows, pins, forgets and blocks them.
#include "tests/host/programs.h"

#include <QDate>
#include <QFileInfo>
#include <gtest/gtest.h>

using namespace hosttest;

TEST_F(Program, KeysAreShownPinnedForgottenAndBlocked)
{
    const Installation installation(QStringLiteral("i"));
    const Installation other(QStringLiteral("o"));
    const auto call = [&](const QString& words) { return installation.call(words.split(QLatin1Char(' '))); };
    const QString key = other.call({QStringLiteral("key"), QStringLiteral("--text")}).out.trimmed();
    const QString shown = other.call({QStringLiteral("key")}).out;
    ASSERT_TRUE(shown.startsWith(QStringLiteral("fingerprint  "))) << qPrintable(shown);
    EXPECT_TRUE(shown.endsWith(QStringLiteral("\nkey          ") + key + QLatin1Char('\n'))) << "the same each time";
    const QString fingerprint = shown.section(QLatin1Char('\n'), 0, 0).section(QLatin1Char(' '), -1);
    EXPECT_EQ(QFileInfo(other.root + QStringLiteral("/settings/identity.key")).permissions() &
                  (QFileDevice::ReadGroup | QFileDevice::WriteGroup | QFileDevice::ReadOther | QFileDevice::WriteOther),
              QFileDevice::Permissions());

    EXPECT_EQ(call(QStringLiteral("abonent add Bob --number 1")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent add Bob --key ") + key).status, 0);
    const QString today = QDate::currentDate().toString(QStringLiteral("yyyy-MM-dd"));
    EXPECT_EQ(call(QStringLiteral("abonent list")).out,
              QStringLiteral("Bob  1  key %1, told %2\n").arg(fingerprint, today));
    EXPECT_EQ(call(QStringLiteral("abonent add Bob --number 2")).status, 0);
    EXPECT_TRUE(call(QStringLiteral("abonent list")).out.startsWith(QStringLiteral("Bob  2  key ") + fingerprint))
        << "another number, the same key";
    const Result second = call(QStringLiteral("abonent add Carol --key ") + key);
    EXPECT_EQ(second.status, 1);
    EXPECT_TRUE(second.err.contains(QStringLiteral("this is the key of 'Bob'"))) << qPrintable(second.err);
    EXPECT_EQ(call(QStringLiteral("abonent forget-key Bob")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent forget-key Dave")).status, 1);
    EXPECT_EQ(call(QStringLiteral("abonent block Bob")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent list")).out,
              QStringLiteral("Bob  2  no key: the first call to them pins it  BLOCKED\n"));
    EXPECT_EQ(call(QStringLiteral("abonent unblock Bob")).status, 0);
    EXPECT_EQ(call(QStringLiteral("abonent add Carol --key ") + key).status, 0) << "who only calls in needs no number";
    EXPECT_EQ(call(QStringLiteral("key block ") + key).status, 0);
    EXPECT_TRUE(call(QStringLiteral("abonent list"))
                    .out.endsWith(QStringLiteral("\nblocked key %1  %2\n").arg(fingerprint, key)));
    EXPECT_EQ(call(QStringLiteral("key unblock ") + key).status, 0);
    EXPECT_EQ(call(QStringLiteral("key unblock ") + key).status, 1);
}

TEST_F(Program, ALostKeyIsToldAndNotReplacedUnasked)
{
    const Installation installation(QStringLiteral("i"));
    installation.call({QStringLiteral("name"), QStringLiteral("I")});
    const QString shown = installation.call({QStringLiteral("key")}).out;
    const QString path = installation.root + QStringLiteral("/settings/identity.key");
    ASSERT_TRUE(QFile::remove(path));
    for (const QStringList& command :
         {QStringList{QStringLiteral("key")},
          QStringList{QStringLiteral("run"), QStringLiteral("--timeout"), QStringLiteral("0.1")}}) {
        const Result result = installation.call(command);
        EXPECT_EQ(result.status, 1);
        EXPECT_TRUE(result.err.contains(path + QStringLiteral(" is gone"))) << qPrintable(result.err);
        EXPECT_TRUE(result.err.contains(shown.section(QLatin1Char('\n'), 0, 0).section(QLatin1Char(' '), -1)));
        EXPECT_TRUE(result.err.contains(QStringLiteral("transport-host key --new")));
        EXPECT_FALSE(QFile::exists(path));
    }
    const Result made = installation.call({QStringLiteral("key"), QStringLiteral("--new")});
    EXPECT_EQ(made.status, 0);
    EXPECT_NE(made.out, shown);
    EXPECT_EQ(installation.call({QStringLiteral("key")}).out, made.out);
    EXPECT_EQ(installation.call({QStringLiteral("key"), QStringLiteral("--new")}).out, made.out)
        << "a key that is there stays";
}
