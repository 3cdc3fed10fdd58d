#include "common/global.h"
#include "host/installation/abonentbook.h"
#include "host/installation/diskfile.h"
#include "host/installation/names.h"
#include "tests/host/storetools.h"
#include "tests/support/blockedthread.h"

#include <QDataStream>
#include <QFileInfo>
#include <QLockFile>
#include <gtest/gtest.h>

#include <thread>

using namespace host;
using namespace hosttest;

namespace {

QByteArray key(char letter)
{
    return QByteArray(32, letter);
}

Abonent abonent(const QString& name, const QByteArray& data = "opaque")
{
    Abonent made;
    made.name = name;
    made.channelData = data;
    return made;
}

class Book : public testing::Test
{
protected:
    Book() { useUtf8Names(); }

    AbonentRecords read()
    {
        AbonentRecords records;
        EXPECT_EQ(book.read(&records), QString());
        return records;
    }
    QString add(const QString& name)
    {
        return book.change([&](AbonentRecords* records) {
            records->abonents.append(abonent(name));
            return QString();
        });
    }

    const QString path = Global::abonentsSettingsFilePath();
    AbonentBook book{path};
};

} // namespace

TEST_F(Book, KeepsAbonentsKeysAndWhatIsBlocked)
{
    EXPECT_TRUE(read().abonents.isEmpty());
    ASSERT_EQ(add(QStringLiteral("Боб")), QString());
    ASSERT_EQ(add(QStringLiteral("Carol")), QString());
    ASSERT_EQ(book.change([](AbonentRecords* records) {
        records->abonents[1].isBlocked = true;
        records->blockedKeys.append(key('x'));
        return records->pin(0, key('b'), Abonent::Pinned::OnFirstCall);
    }),
              QString());
    AbonentBook other(path);
    AbonentRecords records;
    ASSERT_EQ(other.read(&records), QString());
    ASSERT_EQ(records.abonents.size(), 2);
    const Abonent& bob = records.abonents.first();
    EXPECT_EQ(bob.name, QStringLiteral("Боб"));
    EXPECT_EQ(bob.channelType, 2);
    EXPECT_EQ(bob.channelData, QByteArray("opaque"));
    EXPECT_EQ(bob.key, key('b'));
    EXPECT_EQ(bob.pinned, Abonent::Pinned::OnFirstCall);
    EXPECT_LT(qAbs(bob.pinnedAt.secsTo(QDateTime::currentDateTimeUtc())), 60);
    EXPECT_FALSE(bob.isBlocked);
    EXPECT_TRUE(records.abonents.at(1).isBlocked);
    EXPECT_EQ(records.abonents.at(1).key, QByteArray());
    EXPECT_EQ(records.blockedKeys, QVector<QByteArray>{key('x')});
    EXPECT_EQ(records.find(QStringLiteral("БОБ!")), 0);
    EXPECT_EQ(records.find(QStringLiteral("Dave")), -1);
    EXPECT_EQ(records.findKey(key('b')), 0);
    EXPECT_EQ(records.findKey(QByteArray()), -1) << "who has none is not meant by none";
}

// The bytes as hosts without keys wrote them: version, count; name, type, data.
TEST_F(Book, TheOldVersionIsReadAndRewrittenByTheFirstChange)
{
    const QByteArray old = QByteArray::fromHex("00000001 00000001 00000006 0042006F0062 00000002 00000003 616263");
    writeFile(path, old);
    ASSERT_EQ(read().abonents.size(), 1);
    EXPECT_EQ(read().abonents.first().name, QStringLiteral("Bob"));
    EXPECT_EQ(read().abonents.first().channelData, QByteArray("abc"));
    EXPECT_EQ(readAll(path), old) << "reading writes nothing";
    ASSERT_EQ(add(QStringLiteral("Carol")), QString());
    EXPECT_TRUE(readAll(path).startsWith(
        QByteArray::fromHex("00000002 00000002 00000006 0042006F0062 00000002 00000003 616263")));
    EXPECT_EQ(read().abonents.size(), 2);
}

TEST_F(Book, DamageIsToldAndNotWrittenOver)
{
    ASSERT_EQ(add(QStringLiteral("Bob")), QString());
    ASSERT_EQ(book.change([](AbonentRecords* records) { return records->pin(0, key('b'), Abonent::Pinned::ByHand); }),
              QString());
    const QByteArray good = readAll(path);
    QVector<QByteArray> damages{QByteArray(), QByteArray::fromHex("000000017FFFFFFF"),
                                QByteArray::fromHex("00000002FFFFFFFF"),
                                QByteArray::fromHex("0000000200000000FFFFFFFF")};
    for (int length = 4; length < good.size(); ++length)
        damages.append(good.left(length));
    for (const QByteArray& damage : qAsConst(damages)) {
        writeFile(path, damage);
        AbonentRecords records;
        AbonentBook fresh(path);
        EXPECT_EQ(fresh.read(&records).toStdString(), path.toStdString() +
                                                          ": the data is damaged: put back a copy, or remove the file "
                                                          "and tell the abonents again")
            << damage.toHex().constData();
        EXPECT_FALSE(add(QStringLiteral("Eve")).isEmpty());
        EXPECT_EQ(readAll(path), damage);
    }
    AbonentRecords records;
    EXPECT_FALSE(book.read(&records).isEmpty());
    EXPECT_EQ(records.abonents.size(), 1) << "a running host goes on with what it knew";
    writeFile(path, QByteArray::fromHex("0000000900000000"));
    EXPECT_EQ(book.read(&records), path + QStringLiteral(": the format has version 9, this program knows version 2"));
}

TEST_F(Book, AKeyHasOneAbonentAndAnAbonentOneKey)
{
    ASSERT_EQ(add(QStringLiteral("Bob")), QString());
    ASSERT_EQ(add(QStringLiteral("Carol")), QString());
    const auto pin = [&](int index, char letter) {
        return book.change(
            [&](AbonentRecords* records) { return records->pin(index, key(letter), Abonent::Pinned::ByHand); });
    };
    EXPECT_EQ(pin(0, 'b'), QString());
    EXPECT_EQ(pin(1, 'b'), QStringLiteral("this is the key of 'Bob': an abonent has a key of its own"));
    EXPECT_EQ(read().abonents.at(1).key, QByteArray());
    EXPECT_EQ(pin(0, 'c'), QString()) << "another key takes the place of the first";
    EXPECT_EQ(read().findKey(key('b')), -1);
    ASSERT_EQ(book.change([](AbonentRecords* records) {
        records->forgetKey(0);
        return QString();
    }),
              QString());
    EXPECT_EQ(read().abonents.first().key, QByteArray());
    EXPECT_EQ(read().abonents.first().pinned, Abonent::Pinned::No);
}

TEST_F(Book, ARunningHostSeesAChangeAtOnce)
{
    EXPECT_EQ(read().abonents.size(), 0);
    for (int i = 1; i <= 20; ++i) {
        AbonentBook command(path);
        ASSERT_EQ(command.change([&](AbonentRecords* records) {
            records->abonents = {abonent(QStringLiteral("A%1").arg(i % 2))}; // of the same size each time
            return QString();
        }),
                  QString());
        ASSERT_EQ(read().abonents.size(), 1);
        EXPECT_EQ(read().abonents.first().name, QStringLiteral("A%1").arg(i % 2));
    }
}

TEST_F(Book, NoChangeOfSeveralAtOnceIsLost)
{
    constexpr int writers = 4;
    constexpr int each = 15;
    std::vector<std::thread> threads;
    std::atomic<bool> stop{false};
    std::thread reader([&] {
        int seen = 0;
        while (!stop) {
            AbonentBook fresh(path);
            AbonentRecords records;
            EXPECT_EQ(fresh.read(&records), QString());
            EXPECT_GE(records.abonents.size(), seen) << "nothing vanishes, not for a moment";
            seen = records.abonents.size();
        }
    });
    for (int writer = 0; writer < writers; ++writer) {
        threads.emplace_back([&, writer] {
            AbonentBook own(path); // as another program has it
            for (int i = 0; i < each; ++i) {
                EXPECT_EQ(own.change([&](AbonentRecords* records) {
                    records->abonents.append(abonent(QStringLiteral("w%1n%2").arg(writer).arg(i)));
                    return QString();
                }),
                          QString());
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    stop = true;
    reader.join();
    EXPECT_EQ(read().abonents.size(), writers * each);
}

// Sessions ask it who calls, and status who there is.
TEST_F(Book, NobodyWhoReadsWaitsForTheLockOfAChange)
{
    ASSERT_EQ(add(QStringLiteral("Bob")), QString());
    QLockFile lock(path + QStringLiteral(".lock")); // another program's
    ASSERT_TRUE(lock.tryLock(0));
    QString error = QStringLiteral("not done");
    testsupport::ObservedThread changing([&] { error = add(QStringLiteral("Carol")); });
    ASSERT_TRUE(changing.sleepsBeforeItsEnd()) << "it waits for the lock";
    EXPECT_EQ(read().abonents.size(), 1); // if that waits as well, the change fails meanwhile
    lock.unlock();
    changing.join();
    EXPECT_EQ(error, QString()) << "read while it waited";
    EXPECT_EQ(read().abonents.size(), 2);
}

TEST_F(Book, AReaderInsideAChangeSeesWhatStoodBefore)
{
    ASSERT_EQ(add(QStringLiteral("Bob")), QString());
    EXPECT_EQ(book.change([&](AbonentRecords* records) {
        records->abonents.append(abonent(QStringLiteral("Carol")));
        EXPECT_EQ(read().abonents.size(), 1);
        return QString();
    }),
              QString());
    EXPECT_EQ(read().abonents.size(), 2);
    EXPECT_EQ(book.change([](AbonentRecords* records) {
        records->abonents.clear();
        return QStringLiteral("refused");
    }),
              QStringLiteral("refused"));
    EXPECT_EQ(read().abonents.size(), 2);
}

TEST_F(Book, ALockThatIsNoneIsToldInBoundedTime)
{
    QDir().mkpath(path + QStringLiteral(".lock/full"));
    EXPECT_EQ(add(QStringLiteral("Bob")).toStdString(),
              path.toStdString() + ".lock is held by another program: try again, and remove it if none runs");
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(Book, ALinkInTheWayIsReplacedNotFollowed)
{
    const QString victim = writeFile(rig::installRoot() + QStringLiteral("/victim"), "precious");
    QDir().mkpath(QFileInfo(path).absolutePath());
    ASSERT_TRUE(QFile::link(victim, path + QStringLiteral(".new")));
    ASSERT_EQ(add(QStringLiteral("Bob")), QString());
    EXPECT_EQ(readAll(victim), QByteArray("precious"));
    EXPECT_FALSE(QFileInfo(path).isSymLink());
}

TEST(DiskFile, AFullDiskIsToldAsOne)
{
    EXPECT_EQ(savingFailed(QStringLiteral("/x"), QString()), QString());
    EXPECT_EQ(savingFailed(
                  QStringLiteral("/x"),
                  QStringLiteral("Не удалось записать все данные в файл за отведенное время. No space left on device")),
              QStringLiteral("cannot write /x: the disk is full; make room there and try again"));
    EXPECT_EQ(
        savingFailed(QStringLiteral("/x"), QStringLiteral("Не удалось открыть файл для записи. Permission denied.")),
        QStringLiteral("cannot write /x: Не удалось открыть файл для записи. Permission denied."));
}
