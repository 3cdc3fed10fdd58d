// The file of the identity key. The known pair is that of RFC 7748, section 6.1.
#include "common/global.h"
#include "host/installation/identitykey.h"
#include "rig/testroot.h"
#include "tests/support/opendescriptors.h"

#include <QDir>
#include <QFile>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <memory>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>
#include <vector>

using host::KeyPair;
using host::loadOrCreateIdentityKey;

namespace {

const QByteArray knownPublic = "de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f";
const QByteArray knownFile = "transport-host identity 1\n"
                             "public de9edb7d7b7dc1b4d35b61c2ece435373f8343c85b78674dadfc7e146f882b4f\n"
                             "secret 5dab087e624a8a4b79e17f8b83800ee66f3bb1292618b6fd1c2f8b27ff88e0eb\n";

// The way out is part of what the user is told.
const QString damaged =
    QStringLiteral("the identity key in %1 is damaged: put the file back from a backup. Without one, move it away; "
                   "\"transport-host key --new\" makes a new key, and whoever knows the old one must be given the new");
const QString shared =
    QStringLiteral("others may read or change the identity key: chmod 600 %1 (and if somebody may have read it, "
                   "move it away: \"transport-host key --new\" makes a new one)");
const QString anothers =
    QStringLiteral("%1 belongs to another user: run as that user, or give the file to this one with \"chown\"");
const QString aLink =
    QStringLiteral("%1 is a link: put the file itself there; the identity key is not looked for elsewhere");
const QString noFile = QStringLiteral("%1 is not a file: move it away; the identity key belongs there");

class IdentityKey : public testing::Test
{
protected:
    const QString directory = rig::installRoot() + QStringLiteral("/settings");
    const QString path = directory + QStringLiteral("/identity.key");

    void SetUp() override
    {
        ::umask(0);
        ASSERT_TRUE(QDir().mkpath(directory));
    }

    void put(const QByteArray& content, mode_t mode = 0600)
    {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly | QIODevice::Truncate));
        file.write(content);
        file.close();
        ASSERT_EQ(::chmod(QFile::encodeName(path).constData(), mode), 0);
    }

    QByteArray content()
    {
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::ReadOnly));
        return file.readAll();
    }

    // reason: %1 stands for the path.
    void expectRefused(const QString& reason)
    {
        bool created = true;
        QString error;
        EXPECT_EQ(loadOrCreateIdentityKey(path, &created, &error), nullptr);
        EXPECT_FALSE(created);
        EXPECT_EQ(error.toStdString(), reason.arg(path).toStdString());
    }
};

} // namespace

TEST_F(IdentityKey, IsMadeOnceAndReadEachTime)
{
    bool created = false;
    QString error = QStringLiteral("before");
    const auto made = loadOrCreateIdentityKey(path, &created, &error);
    ASSERT_TRUE(made) << error.toStdString();
    EXPECT_TRUE(created);
    EXPECT_EQ(error, QString());

    struct stat status = {};
    ASSERT_EQ(::lstat(QFile::encodeName(path).constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0600u);
    EXPECT_EQ(QDir(directory).entryList(QDir::Files | QDir::Hidden), QStringList{QStringLiteral("identity.key")});

    const auto read = loadOrCreateIdentityKey(path, &created, &error);
    ASSERT_TRUE(read) << error.toStdString();
    EXPECT_FALSE(created);
    EXPECT_EQ(read->publicKey(), made->publicKey());
    EXPECT_TRUE(host::isUsablePublicKey(made->publicKey()));
    const KeyPair other = KeyPair::generate();
    const host::SecretBytes agreed = read->agree(other.publicKey());
    const host::SecretBytes theirs = other.agree(made->publicKey());
    ASSERT_FALSE(agreed.isEmpty());
    EXPECT_TRUE(std::equal(agreed.data(), agreed.data() + agreed.size(), theirs.data()));
}

TEST_F(IdentityKey, LeavesNothingOpen)
{
    bool created = false;
    QString error;
    ASSERT_TRUE(loadOrCreateIdentityKey(path, &created, &error)) << error.toStdString();
    const int before = testsupport::openDescriptors();
    for (int i = 0; i < 3; ++i) {
        EXPECT_TRUE(loadOrCreateIdentityKey(path, &created, &error)) << error.toStdString();
        ASSERT_TRUE(QFile::remove(path));
        EXPECT_TRUE(loadOrCreateIdentityKey(path, &created, &error)) << error.toStdString();
    }
    put(knownFile, 0644);
    expectRefused(shared);
    EXPECT_EQ(testsupport::openDescriptors(), before);
}

TEST_F(IdentityKey, MakesItsDirectory)
{
    const QString deep = rig::installRoot() + QStringLiteral("/a/b/identity.key");
    bool created = false;
    QString error;
    EXPECT_TRUE(loadOrCreateIdentityKey(deep, &created, &error)) << error.toStdString();
    EXPECT_TRUE(created);
}

TEST_F(IdentityKey, ReadsAKnownFile)
{
    put(knownFile);
    bool created = true;
    QString error;
    const auto key = loadOrCreateIdentityKey(path, &created, &error);
    ASSERT_TRUE(key) << error.toStdString();
    EXPECT_FALSE(created);
    EXPECT_EQ(key->publicKey().toHex(), knownPublic);
    EXPECT_EQ(content(), knownFile);
}

TEST_F(IdentityKey, WritesWhatItReads)
{
    bool created = false;
    QString error;
    const auto key = loadOrCreateIdentityKey(path, &created, &error);
    ASSERT_TRUE(key);
    const QByteArray text = content();
    ASSERT_EQ(text.size(), knownFile.size());
    EXPECT_EQ(text.left(33), knownFile.left(33));
    EXPECT_EQ(text.mid(33, 64), key->publicKey().toHex());
    EXPECT_EQ(text.mid(97, 8), knownFile.mid(97, 8));
    EXPECT_EQ(text.right(1), "\n");
}

// A key that says it is another is as bad as none.
TEST_F(IdentityKey, EveryDamageShows)
{
    for (int position = 0; position < knownFile.size(); ++position) {
        // The curve does not look at the lowest three and the highest two bits of a secret.
        const bool isSecret = position >= 105 && position < 169;
        QByteArray text = knownFile;
        text[position] = isSecret && text.at(position) == '8' ? '0' : static_cast<char>(text.at(position) ^ 0x18);
        SCOPED_TRACE(text.toStdString());
        put(text);
        expectRefused(damaged);
        EXPECT_EQ(content(), text) << "the operator may want to look at it";
    }
    for (const int size : {0, 1, 26, 100, knownFile.size() - 1}) {
        put(knownFile.left(size));
        expectRefused(damaged);
    }
    put(knownFile + "\n");
    expectRefused(damaged);
    put(knownFile.toUpper());
    expectRefused(damaged);
}

TEST_F(IdentityKey, IsRefusedWhenOthersMayUseIt)
{
    for (const mode_t bit : {040, 020, 010, 04, 02, 01}) {
        put(knownFile, 0600 | bit);
        expectRefused(shared);
        EXPECT_EQ(content(), knownFile);
    }
    put(knownFile, 0400);
    bool created = true;
    QString error;
    EXPECT_TRUE(loadOrCreateIdentityKey(path, &created, &error)) << error.toStdString();
}

TEST_F(IdentityKey, IsRefusedWhenItIsAnotherUsers)
{
    put(knownFile);
    if (::chown(QFile::encodeName(path).constData(), 12345, static_cast<gid_t>(-1)) != 0)
        GTEST_SKIP() << "only root can give files away";
    expectRefused(anothers);
}

TEST_F(IdentityKey, LinksAreNotFollowed)
{
    put(knownFile);
    const QString target = directory + QStringLiteral("/elsewhere");
    ASSERT_TRUE(QFile::rename(path, target));
    ASSERT_EQ(::symlink(QFile::encodeName(target).constData(), QFile::encodeName(path).constData()), 0);
    expectRefused(aLink);

    // One that leads nowhere is no place to make a key at either.
    ASSERT_TRUE(QFile::remove(target));
    expectRefused(aLink);
    EXPECT_FALSE(QFile::exists(target));
}

TEST_F(IdentityKey, ALinkInThePlaceOfTheNewFileIsRemoved)
{
    const QString target = directory + QStringLiteral("/precious");
    QFile precious(target);
    ASSERT_TRUE(precious.open(QIODevice::WriteOnly));
    precious.write("content");
    precious.close();
    ASSERT_EQ(::chmod(QFile::encodeName(target).constData(), 0644), 0);
    ASSERT_EQ(
        ::symlink(QFile::encodeName(target).constData(), QFile::encodeName(path + QStringLiteral(".new")).constData()),
        0);
    bool created = false;
    QString error;
    EXPECT_TRUE(loadOrCreateIdentityKey(path, &created, &error)) << error.toStdString();
    ASSERT_TRUE(precious.open(QIODevice::ReadOnly));
    EXPECT_EQ(precious.readAll(), "content");
    struct stat status = {};
    ASSERT_EQ(::stat(QFile::encodeName(target).constData(), &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0644u);
}

TEST_F(IdentityKey, OtherThingsInItsPlaceAreTold)
{
    ASSERT_TRUE(QDir().mkpath(path));
    expectRefused(noFile);
    ASSERT_TRUE(QDir().rmdir(path));
    // Whoever opened it to read would wait for a writer.
    ASSERT_EQ(::mkfifo(QFile::encodeName(path).constData(), 0600), 0);
    expectRefused(noFile);
}

TEST_F(IdentityKey, WhatCannotBeWrittenIsTold)
{
    ASSERT_TRUE(QDir().mkpath(path + QStringLiteral(".new/x")));
    expectRefused(QStringLiteral("cannot remove %1.new: Is a directory"));
    EXPECT_FALSE(QFile::exists(path));
}

TEST_F(IdentityKey, AStaleNewFileIsNoKey)
{
    QFile stale(path + QStringLiteral(".new"));
    ASSERT_TRUE(stale.open(QIODevice::WriteOnly));
    stale.write(knownFile);
    stale.close();
    bool created = false;
    QString error;
    const auto key = loadOrCreateIdentityKey(path, &created, &error);
    ASSERT_TRUE(key) << error.toStdString();
    EXPECT_TRUE(created);
    EXPECT_NE(key->publicKey().toHex(), knownPublic);
    EXPECT_FALSE(stale.exists());
}

TEST_F(IdentityKey, ManyThatStartAtOnceEndWithOne)
{
    constexpr int rounds = 20;
    constexpr int starters = 8;
    for (int round = 0; round < rounds; ++round) {
        QFile::remove(path);
        std::vector<QByteArray> keys(starters);
        std::vector<char> made(starters);
        std::vector<std::thread> threads;
        for (int i = 0; i < starters; ++i) {
            threads.emplace_back([&, i] {
                bool created = false;
                QString error;
                const auto key = loadOrCreateIdentityKey(path, &created, &error);
                keys[i] = key ? key->publicKey() : error.toUtf8();
                made[i] = created;
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        for (int i = 1; i < starters; ++i)
            ASSERT_EQ(keys[i].toHex(), keys[0].toHex());
        ASSERT_EQ(std::count(made.begin(), made.end(), 1), 1);
    }
}
