// What the inbox tells of what it cannot do, whole, and what stands in it then.
#include "host/store/inbox.h"
#include "tests/host/inboxfixture.h"

#include <QJsonDocument>
#include <gtest/gtest.h>

using namespace host;
using namespace hosttest;

namespace {

class InboxFaults : public InboxFixture
{
protected:
    // Of a part as an earlier run left it.
    QString leavePart(const QString& number, const MessageRecord& record, const QByteArray& content) const
    {
        const QString directory = paths.incomplete.absoluteFilePath(number);
        writeFile(directory + QLatin1Char('/') + record.contentName, content);
        writeFile(directory + QStringLiteral("/.message"), QJsonDocument(record.toJson()).toJson());
        return directory;
    }

    std::string reason() const { return refused.reason.toStdString(); }

    const OfferFrame offer = offerOf(7, QStringLiteral("f.txt"), "content");
};

} // namespace

TEST_F(InboxFaults, ADirectoryThatCannotBeMade)
{
    writeFile(paths.input.absolutePath(), "in the way");
    MessageStore store(paths, InboxLimits());
    QString error;
    (void)store.open(&error);
    EXPECT_EQ(error.toStdString(),
              "cannot create " + paths.input.absolutePath().toStdString() + ": check that you may write there");
}

TEST_F(InboxFaults, WhatALastRunLeft)
{
    const QString useless = paths.incomplete.absoluteFilePath(QStringLiteral("00000004"));
    QDir().mkpath(useless);
    MessageRecord record = MessageRecord::of(bob, offer, QStringLiteral("f.txt"));
    record.isVerified = true;
    record.received = QDateTime::currentDateTimeUtc();
    leavePart(QStringLiteral("00000005"), record, "content");
    record.isVerified = false;
    record.id = 8;
    leavePart(QStringLiteral("00000006"), record, "conte");
    const auto store = open();
    const QString place = paths.input.absoluteFilePath(QStringLiteral("00000001/f.txt"));
    EXPECT_EQ(notes, (QStringList{QStringLiteral("removed the useless part ") + useless,
                                  QStringLiteral("received before the last stop: ") + place}));
    EXPECT_EQ(readAll(place), QByteArray("content"));
    EXPECT_EQ(partNames(), QStringList{QStringLiteral("00000006")}) << "it can be resumed";
}

TEST_F(InboxFaults, APartThatIsNotTakenUpCannotBeWritten)
{
    const auto store = open();
    {
        const auto begun = store->inbox().begin(bob, offer, &refused);
        ASSERT_TRUE(begun) << reason();
        EXPECT_EQ(begun->append("con"), QString());
    }
    const auto parts = store->inbox().parts(bob);
    ASSERT_EQ(parts.size(), 1u);
    IncomingFile* const part = parts.front().get();
    QString place;
    EXPECT_EQ(part->append("tent").toStdString(), "not resumed");
    EXPECT_EQ(part->store(offer, &place).toStdString(), "not resumed");
    part->discard();
    EXPECT_EQ(partNames().size(), 1) << "it is not this session's to throw away";
    ASSERT_TRUE(resume(part, offer, 3, &refused)) << reason();
    EXPECT_EQ(part->append("tents").toStdString(), "more arrives than was announced");
    EXPECT_EQ(part->append("tent"), QString());
    EXPECT_EQ(part->store(offer, &place), QString());
    EXPECT_EQ(readAll(place), QByteArray("content"));
}

TEST_F(InboxFaults, APartThatIsGoneOrShorter)
{
    const auto store = open();
    {
        const auto begun = store->inbox().begin(bob, offer, &refused);
        ASSERT_TRUE(begun) << reason();
        EXPECT_EQ(begun->append("con"), QString());
    }
    const auto parts = store->inbox().parts(bob);
    ASSERT_EQ(parts.size(), 1u);
    IncomingFile* const part = parts.front().get();
    ASSERT_TRUE(QFile::resize(paths.incomplete.absoluteFilePath(QStringLiteral("00000001/f.txt")), 1));
    EXPECT_FALSE(resume(part, offer, 3, &refused));
    EXPECT_EQ(refused.code, RefusalCode::WrongHash);
    EXPECT_EQ(reason(), "what stood of it has changed meanwhile");
    // Another session begins it anew, and it is over with that.
    const auto other = store->inbox().begin(bob, offer, &refused);
    ASSERT_TRUE(other) << reason();
    other->discard();
    QString error;
    EXPECT_EQ(part->readBack(10, &error), QByteArray());
    EXPECT_EQ(error.toStdString(), "the part has gone");
    EXPECT_FALSE(resume(part, offer, 3, &refused));
    EXPECT_EQ(reason(), "what stood of it has changed meanwhile");
}

TEST_F(InboxFaults, AnotherSessionTakesAPartOver)
{
    const auto store = open();
    const auto first = store->inbox().begin(bob, offer, &refused);
    ASSERT_TRUE(first) << reason();
    const auto second = store->inbox().begin(bob, offer, &refused);
    ASSERT_TRUE(second) << reason();
    QString place;
    EXPECT_EQ(first->append("content").toStdString(), "another call has taken the message over");
    EXPECT_EQ(first->store(offer, &place).toStdString(), "another call has taken the message over");
    first->discard();
    EXPECT_EQ(partNames().size(), 1) << "it is the other's";
    EXPECT_EQ(second->append("content"), QString());
    EXPECT_EQ(second->store(offer, &place), QString());
    EXPECT_EQ(store->inbox().begin(bob, offer, &refused), nullptr);
    EXPECT_EQ(refused.code, RefusalCode::Failed);
    EXPECT_EQ(reason(), "another call has just put it into the inbox");
    const OfferFrame nameless = offerOf(0, QStringLiteral("f.txt"), "content");
    EXPECT_EQ(store->inbox().begin(bob, nameless, &refused), nullptr);
    EXPECT_EQ(refused.code, RefusalCode::NotAllowed);
    EXPECT_EQ(reason(), "no message has the identifier 0");
}

// The numbers behind the last one are all taken: in the parts' directory, then in the inbox.
TEST_F(InboxFaults, NumbersThatAreAllTaken)
{
    const auto store = open();
    ASSERT_EQ(receiveWhole(store.get(), bob, offer, "content"),
              paths.input.absoluteFilePath(QStringLiteral("00000001/f.txt")));
    const auto take = [](const QDir& dir) {
        for (int number = 2; number <= 102; ++number)
            dir.mkpath(QStringLiteral("%1").arg(number, 8, 10, QLatin1Char('0')));
    };
    take(paths.input);
    const OfferFrame another = offerOf(8, QStringLiteral("g.txt"), "content");
    EXPECT_EQ(receiveWhole(store.get(), bob, another, "content").toStdString(),
              "no free message number in " + paths.input.absolutePath().toStdString());
    EXPECT_FALSE(store->inbox().isStored(bob, 8, another.sha256)) << "it comes again";
    EXPECT_EQ(partNames(), QStringList{QStringLiteral("00000002")}) << "and need not be sent again";
    take(paths.incomplete);
    const OfferFrame third = offerOf(9, QStringLiteral("h.txt"), "content");
    EXPECT_EQ(store->inbox().begin(bob, third, &refused), nullptr);
    EXPECT_EQ(refused.code, RefusalCode::Failed);
    EXPECT_EQ(reason(), "no free message number in " + paths.incomplete.absolutePath().toStdString());
}
