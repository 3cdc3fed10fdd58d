// Memory for secrets: who holds it, and what the kernel was told about it.
#include "host/installation/secretbytes.h"

#include <QByteArray>
#include <QFile>
#include <QList>
#include <gtest/gtest.h>

#include <utility>

using host::SecretBytes;

namespace {

// The kernel's flags of the mapping that holds the address, as in "rd wr mr mw me ac dd".
QList<QByteArray> mappingFlagsOf(const void* address)
{
    QFile maps(QStringLiteral("/proc/self/smaps"));
    EXPECT_TRUE(maps.open(QIODevice::ReadOnly));
    const auto wanted = reinterpret_cast<quintptr>(address);
    bool isIn = false;
    for (const QByteArray& line : maps.readAll().split('\n')) {
        const QByteArray first = line.left(line.indexOf(' '));
        const int dash = first.indexOf('-');
        if (dash > 0 && !first.endsWith(':'))
            isIn = first.left(dash).toULongLong(nullptr, 16) <= wanted &&
                   wanted < first.mid(dash + 1).toULongLong(nullptr, 16);
        else if (isIn && line.startsWith("VmFlags:"))
            return line.mid(8).simplified().split(' ');
    }
    return {};
}

} // namespace

TEST(SecretBytesTest, NoneUntilAsked)
{
    const SecretBytes none;
    EXPECT_TRUE(none.isEmpty());
    EXPECT_EQ(none.size(), 0);
    EXPECT_EQ(none.data(), nullptr);
}

TEST(SecretBytesTest, BeginsWithZeros)
{
    for (const int size : {1, 32, 5000}) {
        SecretBytes secret(size);
        ASSERT_EQ(secret.size(), size);
        EXPECT_FALSE(secret.isEmpty());
        for (int i = 0; i < size; ++i)
            ASSERT_EQ(secret.data()[i], 0) << i << " of " << size;
    }
}

TEST(SecretBytesTest, MovesAndLeavesNothingBehind)
{
    SecretBytes first(32);
    first.data()[31] = 7;
    const unsigned char* const place = first.data();
    SecretBytes second(std::move(first));
    EXPECT_TRUE(first.isEmpty()); // NOLINT(bugprone-use-after-move): that is the question
    EXPECT_EQ(first.size(), 0);
    EXPECT_EQ(second.data(), place) << "moved, not copied: a copy would have to be wiped";
    EXPECT_EQ(second.data()[31], 7);
    SecretBytes third(16);
    third = std::move(second);
    EXPECT_EQ(third.data(), place);
    EXPECT_EQ(third.size(), 32);
    EXPECT_TRUE(second.isEmpty()); // NOLINT(bugprone-use-after-move)
}

TEST(SecretBytesTest, MovedIntoItselfItStays)
{
    SecretBytes secret(4);
    secret.data()[0] = 9;
    SecretBytes& same = secret;
    secret = std::move(same);
    ASSERT_EQ(secret.size(), 4);
    EXPECT_EQ(secret.data()[0], 9);
}

TEST(SecretBytesTest, WipedItIsEmptyAndMayBeWipedAgain)
{
    SecretBytes secret(4);
    secret.wipe();
    EXPECT_TRUE(secret.isEmpty());
    EXPECT_EQ(secret.size(), 0);
    secret.wipe();
    EXPECT_TRUE(secret.isEmpty());
}

TEST(SecretBytesTest, IsNoPartOfACoreDump)
{
    const SecretBytes secret(32);
    const QList<QByteArray> flags = mappingFlagsOf(secret.data());
    ASSERT_TRUE(flags.contains("rd")) << "the mapping was not found";
    EXPECT_TRUE(flags.contains("dd")) << flags.join(' ').constData();
    const QList<QByteArray> usual = mappingFlagsOf(&flags);
    EXPECT_FALSE(usual.contains("dd")) << "the flag means something else here";
}
