// Numbers as display texts, names fit for files, the user and the free space.
#include "common/global.h"
#include "rig/testroot.h"
#include "tests/common/printing.h"

#include <QCoreApplication>
#include <QFile>
#include <QLocale>
#include <gtest/gtest.h>

#include <clocale>
#include <cstdarg>
#include <cstdio>
#include <dlfcn.h>
#include <limits>
#include <sys/statvfs.h>

namespace {

bool hasDecimalComma = false;

QString u(const char* text)
{
    return QString::fromUtf8(text);
}

} // namespace

// Formatting by the C library as in a locale with a decimal comma, none of which need be
// installed where the test runs.
#define INTERPOSED extern "C" __attribute__((visibility("default")))

INTERPOSED int vsnprintf(char* text, size_t size, const char* format, va_list arguments) noexcept
{
    using Function = int(char*, size_t, const char*, va_list);
    static auto* const real = reinterpret_cast<Function*>(dlsym(RTLD_NEXT, "vsnprintf"));
    const int length = real(text, size, format, arguments);
    for (char* c = text; hasDecimalComma && size > 0 && *c != '\0'; ++c) {
        if (*c == '.')
            *c = ',';
    }
    return length;
}

INTERPOSED int snprintf(char* text, size_t size, const char* format, ...) noexcept
{
    va_list arguments;
    va_start(arguments, format);
    const int length = vsnprintf(text, size, format, arguments);
    va_end(arguments);
    return length;
}

TEST(SizeText, StepsOf1024)
{
    const struct
    {
        qint64 bytes;
        const char* text;
    } rows[] = {
        {0, "0 байт"},
        {1, "1 байт"},
        {1023, "1023 байт"},
        {1024, "1.0 КБайт"},
        {1536, "1.5 КБайт"},
        {1048575, "1024.0 КБайт"},
        {1048576, "1.0 МБайт"},
        {1572864, "1.5 МБайт"},
        {1073741823, "1024.0 МБайт"},
        {1073741824, "1.0 ГБайт"},
        {1099511627775, "1024.0 ГБайт"},
        {1099511627776, "1.0 ТБайт"},
        {1649267441664, "1.5 ТБайт"},
        {std::numeric_limits<qint64>::max(), "8388608.0 ТБайт"},
        {-5, "-5 байт"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Global::sizeString(row.bytes), u(row.text)) << row.bytes;
}

TEST(SizeText, PointInEveryLocale)
{
    hasDecimalComma = true;
    char text[8];
    snprintf(text, sizeof text, "%.1f", 1.5);
    ASSERT_STREQ(text, "1,5");
    QLocale::setDefault(QLocale(QLocale::Russian));
    for (const char* name : {"ru_RU.UTF-8", "de_DE.UTF-8", "fr_FR.UTF-8"}) {
        if (setlocale(LC_ALL, name))
            break;
    }
    const QString size = Global::sizeString(1536);
    const QString speed = Global::speedString(1536);
    const QString whole = Global::sizeString(1023);
    hasDecimalComma = false;
    EXPECT_EQ(size, u("1.5 КБайт"));
    EXPECT_EQ(speed, u("1.5 КБайт/с (12.0 Кбит/с)"));
    EXPECT_EQ(whole, u("1023 байт"));
}

TEST(SpeedText, Bits)
{
    const struct
    {
        qint64 bytes;
        const char* text;
    } rows[] = {
        {0, "0 бит/с"},
        {127, "1016 бит/с"},
        {128, "1.0 Кбит/с"},
        {131071, "1024.0 Кбит/с"},
        {131072, "1.0 Мбит/с"},
        {134217727, "1024.0 Мбит/с"},
        {134217728, "1.0 Гбит/с"},
        {137438953471, "1024.0 Гбит/с"},
        {137438953472, "1.0 Тбит/с"},
        // More bits than a number holds are as many as it holds.
        {std::numeric_limits<qint64>::max(), "8388608.0 Тбит/с"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Global::speedStringBits(row.bytes), u(row.text)) << row.bytes;
}

TEST(SpeedText, BytesAndBits)
{
    const struct
    {
        qint64 bytes;
        const char* text;
    } rows[] = {
        {0, "0 байт/с (0 бит/с)"},
        {127, "127 байт/с (1016 бит/с)"},
        {1023, "1023 байт/с (8.0 Кбит/с)"},
        {1024, "1.0 КБайт/с (8.0 Кбит/с)"},
        {1536, "1.5 КБайт/с (12.0 Кбит/с)"},
        {1048576, "1.0 МБайт/с (8.0 Мбит/с)"},
        {1073741824, "1.0 ГБайт/с (8.0 Гбит/с)"},
        {1099511627776, "1.0 ТБайт/с (8.0 Тбит/с)"},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Global::speedString(row.bytes), u(row.text)) << row.bytes;
}

TEST(TimeText, SecondsMinutesHours)
{
    const struct
    {
        qint64 seconds;
        const char* text;
    } rows[] = {
        {0, "0 сек."},           {59, "59 сек."},       {60, "1 м. 0 сек."},       {61, "1 м. 1 сек."},
        {3599, "59 м. 59 сек."}, {3600, "1 ч. 0 м."},   {3659, "1 ч. 0 м."},       {3660, "1 ч. 1 м."},
        {7199, "1 ч. 59 м."},    {90000, "25 ч. 0 м."}, {8640000, "2400 ч. 0 м."},
    };
    for (const auto& row : rows)
        EXPECT_EQ(Global::timeStringSec(row.seconds), u(row.text)) << row.seconds;
}

TEST(Declension, FollowsTheLastTwoDigits)
{
    const auto chosen = [](int n) { return Global::declension(n, u("one"), u("few"), u("many")); };
    for (int hundreds : {0, 100, 1000, 20100}) {
        for (int n : {0, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16, 17, 18, 19, 20, 25, 30, 99})
            EXPECT_EQ(chosen(hundreds + n), u("many")) << hundreds + n;
        for (int n : {1, 21, 31, 91})
            EXPECT_EQ(chosen(hundreds + n), u("one")) << hundreds + n;
        for (int n : {2, 3, 4, 22, 33, 44, 92})
            EXPECT_EQ(chosen(hundreds + n), u("few")) << hundreds + n;
    }
}

// The remainder of a negative number is negative, or 0: none is 1, 2, 3 or 4, and none lies from 10
// to 19.
TEST(Declension, OfNegativeNumbersIsAlwaysMany)
{
    for (int n : {-1, -2, -3, -4, -5, -10, -11, -19, -20, -21, -22, -100, -101, -102, -111, -2147483647 - 1})
        EXPECT_EQ(Global::declension(n, u("one"), u("few"), u("many")), u("many")) << n;
}

TEST(Cut, KeepsWhatWouldNotBecomeShorter)
{
    EXPECT_EQ(Global::cut(u(""), 5), u(""));
    EXPECT_EQ(Global::cut(u("12345"), 5), u("12345"));
    EXPECT_EQ(Global::cut(u("123456"), 5), u("123456"));
    EXPECT_EQ(Global::cut(u("12345678"), 5), u("12345678"));
    EXPECT_EQ(Global::cut(u("123456789"), 5), u("12345..."));
    EXPECT_EQ(Global::cut(u("абвгдежзи"), 5), u("абвгд..."));
    EXPECT_EQ(Global::cut(u("abc"), 0), u("abc"));
    EXPECT_EQ(Global::cut(u("abcd"), 0), u("..."));
    EXPECT_EQ(Global::cut(u("abc"), std::numeric_limits<int>::max()), u("abc"));
    EXPECT_EQ(Global::cut(u("%1%2%3%4%5"), 4), u("%1%2..."));
}

TEST(FilterName, KeepsLettersAndDigits)
{
    EXPECT_EQ(Global::filterName(u("Ёж_Тест-1 Ab.z")), u("ёжтест1abz"));
    EXPECT_EQ(Global::filterName(u("ABCDEFGHIJKLMNOPQRSTUVWXYZ abcdefghijklmnopqrstuvwxyz 0123456789")),
              u("abcdefghijklmnopqrstuvwxyzabcdefghijklmnopqrstuvwxyz0123456789"));
    const QString lower = u("абвгдеёжзийклмнопрстуфхцчшщъыьэюя");
    EXPECT_EQ(Global::filterName(u("АБВГДЕЁЖЗИЙКЛМНОПРСТУФХЦЧШЩЪЫЬЭЮЯ") + lower), lower + lower);
    // Other scripts, other Cyrillic letters and other digits go.
    EXPECT_EQ(Global::filterName(u("éßΩЇўҐђ№Ѐѐ٣²@[`{/:\n\t")), u(""));
    EXPECT_EQ(Global::filterName(u("")), u(""));
}

TEST(FilterSymbols, RemovesWhatAFileNameMustNotHold)
{
    EXPECT_EQ(Global::filterNotValidSymbols(u("a\"b<c>d:e\\f/g|h?i*j")), u("abcdefghij"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("имя файла.txt")), u("имя файла.txt"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("!'();,=+@#$%^&[]{}~`_-\n")), u("!'();,=+@#$%^&[]{}~`_-\n"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("../../etc/passwd")), u("etcpasswd"));
}

TEST(FilterSymbols, RemovesPairsOfPointsInOnePass)
{
    EXPECT_EQ(Global::filterNotValidSymbols(u("a.b")), u("a.b"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("a..b")), u("ab"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("a...b")), u("a.b"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("a....b")), u("ab"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("a.:.b")), u("a..b"));
    EXPECT_EQ(Global::filterNotValidSymbols(u("..")), u(""));
    EXPECT_EQ(Global::filterNotValidSymbols(u(".")), u("."));
    EXPECT_EQ(Global::filterNotValidSymbols(u("a.")), u("a."));
}

TEST(UserName, IsTakenOnce)
{
    qputenv("USER", "first");
    qputenv("LOGNAME", "other");
    EXPECT_EQ(Global::currentSystemUserName(), u("first"));
    qputenv("USER", "second");
    EXPECT_EQ(Global::currentSystemUserName(), u("first"));
}

TEST(UserName, ComesFromNoOtherVariable)
{
    qunsetenv("USER");
    qputenv("LOGNAME", "other");
    qputenv("USERNAME", "other");
    EXPECT_EQ(Global::currentSystemUserName(), QString());
}

TEST(UserName, IsInTheLocalEncoding)
{
    const QString name = u("ab");
    qputenv("USER", name.toLocal8Bit());
    EXPECT_EQ(Global::currentSystemUserName(), name);
}

namespace {

// Others fill and empty the disk meanwhile.
::testing::AssertionResult isFreeSpaceOf(qint64 bytes, const QString& path)
{
    struct statvfs info = {};
    if (statvfs(qPrintable(path), &info) != 0)
        return ::testing::AssertionFailure() << "no file system at " << qPrintable(path);
    const qint64 expected = qint64(info.f_bavail) * qint64(info.f_frsize);
    const qint64 total = qint64(info.f_blocks) * qint64(info.f_frsize);
    if (bytes > 0 && qAbs(bytes - expected) <= total / 10)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << bytes << " is not about " << expected;
}

} // namespace

TEST(FreeSpace, OfADirectoryAndAFile)
{
    const QString root = rig::installRoot();
    EXPECT_TRUE(isFreeSpaceOf(Global::diskFreeSpace(root), root));
    EXPECT_TRUE(isFreeSpaceOf(Global::diskFreeSpace(QCoreApplication::applicationFilePath()), root));
    ASSERT_TRUE(QDir::setCurrent(root));
    EXPECT_TRUE(isFreeSpaceOf(Global::diskFreeSpace(QStringLiteral(".")), root));
}

TEST(FreeSpace, OfTheNearestExistingAncestor)
{
    const QString root = rig::installRoot();
    EXPECT_TRUE(isFreeSpaceOf(Global::diskFreeSpace(root + QStringLiteral("/missing/too/file.txt")), root));
    EXPECT_TRUE(isFreeSpaceOf(Global::diskFreeSpace(QStringLiteral("/missing_for_sure/too")), QStringLiteral("/")));
    ASSERT_TRUE(QDir::setCurrent(root));
    EXPECT_TRUE(isFreeSpaceOf(Global::diskFreeSpace(QStringLiteral("missing/too")), root));
}

// Only a volume of another size shows that the way up stops where it should.
TEST(FreeSpace, OfTheVolumeInBetween)
{
    EXPECT_TRUE(isFreeSpaceOf(Global::diskFreeSpace(QStringLiteral("/dev/shm/missing_for_sure/too")),
                              QStringLiteral("/dev/shm")));
}
