// Secrets do not outlive what holds them: the memory of the process is searched for them.
#include "host/installation/coredumps.h"
#include "host/installation/identitykey.h"
#include "rig/testroot.h"
#include "tests/host/noisetools.h"

#include <QFile>

#include <csignal>
#include <fcntl.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>
#include <vector>

using host::KeyPair;
using host::NoiseCipher;
using host::SecretBytes;

namespace {

constexpr unsigned char mask = 0x5A;
constexpr qint64 largestRegion = qint64(16) << 20; // the sanitizers' own are larger, and mostly empty

// What is looked for, never unmasked in memory. The first and the last byte of a secret key are
// changed before it is used: they are left out.
class Wanted
{
public:
    explicit Wanted(const SecretBytes& secret)
    {
        for (int i = 1; i < secret.size() - 1; ++i)
            m_masked.push_back(static_cast<unsigned char>(secret.data()[i] ^ mask));
    }

    // The same as hexadecimal digits.
    [[nodiscard]] Wanted asHex() const
    {
        Wanted hex;
        for (const unsigned char byte : m_masked) {
            const unsigned char plain = byte ^ mask;
            hex.m_masked.push_back(static_cast<unsigned char>("0123456789abcdef"[plain >> 4] ^ mask));
            hex.m_masked.push_back(static_cast<unsigned char>("0123456789abcdef"[plain & 15] ^ mask));
        }
        return hex;
    }

    [[nodiscard]] bool isAt(const unsigned char* bytes) const
    {
        for (size_t i = 0; i < m_masked.size(); ++i) {
            if ((bytes[i] ^ mask) != m_masked[i])
                return false;
        }
        return true;
    }
    [[nodiscard]] size_t size() const { return m_masked.size(); }

private:
    Wanted() = default;
    std::vector<unsigned char> m_masked;
};

struct Region
{
    quint64 begin;
    quint64 end;
};

std::vector<Region> writableRegions()
{
    QFile maps(QStringLiteral("/proc/self/maps"));
    EXPECT_TRUE(maps.open(QIODevice::ReadOnly));
    std::vector<Region> regions;
    for (const QByteArray& line : maps.readAll().split('\n')) {
        const QList<QByteArray> words = line.simplified().split(' ');
        if (words.size() < 2 || !words.at(1).startsWith("rw"))
            continue;
        const QList<QByteArray> ends = words.at(0).split('-');
        const Region region{ends.at(0).toULongLong(nullptr, 16), ends.at(1).toULongLong(nullptr, 16)};
        if (region.end - region.begin <= static_cast<quint64>(largestRegion))
            regions.push_back(region);
    }
    return regions;
}

// How often it stands in what the process may write to.
int occurrences(const Wanted& wanted)
{
    const int memory = ::open("/proc/self/mem", O_RDONLY | O_CLOEXEC);
    EXPECT_GE(memory, 0);
    int found = 0;
    for (const Region& region : writableRegions()) {
        std::vector<unsigned char> bytes(region.end - region.begin);
        const ssize_t size = ::pread(memory, bytes.data(), bytes.size(), static_cast<off_t>(region.begin));
        for (size_t at = 0; size > 0 && at + wanted.size() <= static_cast<size_t>(size); ++at)
            found += wanted.isAt(bytes.data() + at);
        // Nothing of it may be found again in what is made for the next one.
        std::fill(bytes.begin(), bytes.end(), static_cast<unsigned char>(0));
        asm volatile("" : : "r"(bytes.data()) : "memory");
    }
    ::close(memory);
    return found;
}

bool wasDumped(bool isForbidden)
{
    const pid_t child = ::fork();
    if (child == 0) {
        rlimit limit = {};
        ::getrlimit(RLIMIT_CORE, &limit);
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_CORE, &limit);
        if (::chdir(QFile::encodeName(rig::installRoot()).constData()) != 0 ||
            (isForbidden && !host::forbidCoreDumps().isEmpty()))
            ::_exit(1);
        ::signal(SIGSEGV, SIG_DFL);
        ::raise(SIGSEGV);
        ::_exit(2);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status)) << status;
    return WCOREDUMP(status);
}

} // namespace

TEST(Secrets, OfAnIdentityEndWithIt)
{
    const QString path = rig::installRoot() + QStringLiteral("/settings/identity.key");
    bool created = false;
    QString error;
    auto key = host::loadOrCreateIdentityKey(path, &created, &error);
    ASSERT_TRUE(key) << error.toStdString();
    const Wanted wanted(key->secretKey());
    EXPECT_EQ(occurrences(wanted), 1) << "in use it stands in one place";
    EXPECT_EQ(occurrences(wanted.asHex()), 0);
    key.reset();
    EXPECT_EQ(occurrences(wanted), 0);

    key = host::loadOrCreateIdentityKey(path, &created, &error);
    ASSERT_TRUE(key) << error.toStdString();
    EXPECT_FALSE(created);
    EXPECT_EQ(occurrences(wanted), 1);
    EXPECT_EQ(occurrences(wanted.asHex()), 0);
    key.reset();
    EXPECT_EQ(occurrences(wanted), 0);
}

TEST(Secrets, OfAHandshakeEndWithItsLastMessage)
{
    KeyPair ephemeral = KeyPair::generate();
    const Wanted ephemeralSecret(ephemeral.secretKey());
    auto identity = noisetools::newIdentity();
    const Wanted identitySecret(identity->secretKey());
    host::NoiseHandshake initiator(host::NoiseHandshake::Role::Initiator, "p", std::move(identity),
                                   std::move(ephemeral));
    host::NoiseHandshake responder(host::NoiseHandshake::Role::Responder, "p", noisetools::newIdentity());
    QByteArray payload;
    ASSERT_TRUE(responder.read(initiator.write("x"), &payload));
    EXPECT_EQ(occurrences(ephemeralSecret), 1);
    EXPECT_EQ(occurrences(identitySecret), 1);
    ASSERT_TRUE(initiator.read(responder.write("x"), &payload));
    ASSERT_TRUE(responder.read(initiator.write("x"), &payload));
    EXPECT_TRUE(initiator.isDone());
    EXPECT_EQ(occurrences(ephemeralSecret), 0);
    EXPECT_EQ(occurrences(identitySecret), 0);
}

TEST(Secrets, OfAHandshakeEndWhenItFails)
{
    KeyPair ephemeral = KeyPair::generate();
    const Wanted wanted(ephemeral.secretKey());
    host::NoiseHandshake responder(host::NoiseHandshake::Role::Responder, "p", noisetools::newIdentity(),
                                   std::move(ephemeral));
    host::NoiseHandshake initiator(host::NoiseHandshake::Role::Initiator, "p", noisetools::newIdentity());
    QByteArray payload;
    ASSERT_TRUE(responder.read(initiator.write("x"), &payload));
    ASSERT_FALSE(responder.write("x").isEmpty());
    EXPECT_EQ(occurrences(wanted), 1);
    EXPECT_FALSE(responder.read("nonsense", &payload));
    EXPECT_EQ(occurrences(wanted), 0);
}

TEST(Secrets, WhatWasAgreedOnEnds)
{
    const KeyPair one = KeyPair::generate();
    const KeyPair other = KeyPair::generate();
    SecretBytes agreed = one.agree(other.publicKey());
    const Wanted wanted(agreed);
    EXPECT_EQ(occurrences(wanted), 1);
    agreed.wipe();
    EXPECT_EQ(occurrences(wanted), 0);
}

TEST(Secrets, OfACipherEndWithIt)
{
    SecretBytes key = noisetools::copyOf(KeyPair::generate().secretKey());
    const Wanted wanted(key);
    NoiseCipher sending(noisetools::copyOf(key));
    NoiseCipher receiving(std::move(key));
    QByteArray plain;
    ASSERT_TRUE(receiving.open(sending.seal(QByteArray(1000, 'x')), &plain));
    EXPECT_EQ(occurrences(wanted), 2) << "one for each";
    EXPECT_FALSE(receiving.open("nonsense", &plain));
    EXPECT_EQ(occurrences(wanted), 1);
    sending = NoiseCipher();
    EXPECT_EQ(occurrences(wanted), 0);
}

TEST(Secrets, NoCoreDumpOnceForbidden)
{
    if (!wasDumped(false))
        std::printf("this system dumps no core in any case; the process's own settings are looked at alone\n");
    EXPECT_FALSE(wasDumped(true));
    const pid_t child = ::fork();
    if (child == 0) {
        rlimit limit = {1, 1};
        const bool isForbidden = host::forbidCoreDumps().isEmpty() && ::prctl(PR_GET_DUMPABLE) == 0 &&
                                 ::getrlimit(RLIMIT_CORE, &limit) == 0 && limit.rlim_cur == 0;
        ::_exit(isForbidden ? 0 : 1);
    }
    int status = 0;
    EXPECT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}
