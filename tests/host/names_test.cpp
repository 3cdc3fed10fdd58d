#include "host/installation/names.h"

#include <QFile>
#include <gtest/gtest.h>

#include <random>
#include <set>

using namespace host;

TEST(SafeFileName, HarmlessNamesStay)
{
    for (const QString& name :
         {QStringLiteral("report.txt"), QStringLiteral("Отчёт за май.txt"), QStringLiteral("報告 書.tar.gz"),
          QString::fromUtf8("\xF0\x9F\x93\xA0.jpg"), QStringLiteral("a..b"), QStringLiteral("-rf")})
        EXPECT_EQ(safeFileName(name), name);
}

TEST(SafeFileName, NothingLeavesTheDirectory)
{
    EXPECT_EQ(safeFileName(QStringLiteral("../../etc/passwd")), QStringLiteral("_._.._etc_passwd"));
    EXPECT_EQ(safeFileName(QStringLiteral("..")), QStringLiteral("_."));
    EXPECT_EQ(safeFileName(QStringLiteral(".")), QStringLiteral("_"));
    EXPECT_EQ(safeFileName(QStringLiteral("/abs")), QStringLiteral("_abs"));
    EXPECT_EQ(safeFileName(QStringLiteral("c:\\x")), QStringLiteral("c:_x"));
    EXPECT_EQ(safeFileName(QStringLiteral(".message")), QStringLiteral("_message"));
    EXPECT_EQ(safeFileName(QString()), QStringLiteral("file"));
    EXPECT_EQ(safeFileName(QStringLiteral("   ")), QStringLiteral("file"));
    EXPECT_EQ(safeFileName(QStringLiteral("a") + QChar(0) + QStringLiteral("b\n\x7F\x1B[2J")),
              QStringLiteral("a_b___[2J"));
    EXPECT_EQ(safeFileName(QStringLiteral("gpj.\u202Eexe")), QStringLiteral("gpj._exe"));
    EXPECT_EQ(safeFileName(QStringLiteral("gpj.\u061Cexe")), QStringLiteral("gpj._exe"));
    EXPECT_EQ(safeFileName(QString(QChar(0xD800))).toUtf8(), QByteArray("_")) << "a lone surrogate";
}

TEST(SafeFileName, LongNamesKeepTheirExtension)
{
    const QString name = safeFileName(QString(1000, QChar(0x0416)) + QStringLiteral(".txt"));
    EXPECT_EQ(name, QString(118, QChar(0x0416)) + QStringLiteral(".txt")) << "two bytes each, 240 in all";
    QString faces;
    for (int i = 0; i < 100; ++i)
        faces += QString::fromUtf8("\xF0\x9F\x98\x80");
    EXPECT_EQ(safeFileName(faces).toUtf8().size(), 240);
    EXPECT_LE(safeFileName(QStringLiteral("a.") + QString(1000, QLatin1Char('x'))).toUtf8().size(), maxSafeNameBytes);
}

TEST(SafeFileName, IsItsOwnSafeName)
{
    for (const QString& name :
         {QStringLiteral("../x"), QString(700, QLatin1Char('.')), QStringLiteral(" a "), QStringLiteral("\t.x")})
        EXPECT_EQ(safeFileName(safeFileName(name)), safeFileName(name));
}

// A part whose name is not its own safe name is thrown away at the next start.
TEST(SafeFileName, ANameThatIsCutIsItsOwnSafeName)
{
    const QString cutBehindABlank = QString(maxSafeNameBytes - 1, QLatin1Char('x')) + QStringLiteral(" yyyyyyyyyy");
    EXPECT_EQ(safeFileName(cutBehindABlank), QString(maxSafeNameBytes - 1, QLatin1Char('x')));
    constexpr unsigned seed = 20260715;
    std::mt19937 random(seed);
    const QString alphabet = QStringLiteral(" .\u00A0\u3000\u061C/жx報\t");
    for (int round = 0; round < 20000; ++round) {
        QString name;
        const int length = 200 + static_cast<int>(random() % 80);
        for (int i = 0; i < length; ++i)
            name += random() % 3 == 0 ? alphabet.at(static_cast<int>(random() % static_cast<unsigned>(alphabet.size())))
                                      : QLatin1Char('x');
        const QString safe = safeFileName(name);
        ASSERT_EQ(safeFileName(safe), safe) << "seed " << seed << ", round " << round;
        ASSERT_LE(safe.toUtf8().size(), maxSafeNameBytes);
    }
}

TEST(AbonentNames, KeyIgnoresCaseAndPunctuation)
{
    EXPECT_EQ(abonentKey(QStringLiteral("Отдел № 5")), abonentKey(QStringLiteral("отдел-5")));
    EXPECT_NE(abonentKey(QStringLiteral("Alice")), abonentKey(QStringLiteral("Alice2")));
    EXPECT_NE(abonentKey(QStringLiteral("北京")), abonentKey(QStringLiteral("上海"))) << "any script";
    EXPECT_EQ(abonentKey(QString::fromUtf8("\xF0\x9D\x94\x98")).toUcs4().size(), 1) << "characters of four bytes";
}

TEST(AbonentNames, Validity)
{
    EXPECT_TRUE(isValidAbonentName(QStringLiteral("Боб")));
    EXPECT_TRUE(isValidAbonentName(QString(255, QLatin1Char('x'))));
    for (const QString& name : {QString(), QStringLiteral("***"), QStringLiteral(" Bob"), QStringLiteral("Bob\n"),
                                QStringLiteral("\u202EBob"), QString(256, QLatin1Char('x'))})
        EXPECT_FALSE(isValidAbonentName(name));
}

TEST(DisplayName, ShowsNoControlCharacters)
{
    EXPECT_EQ(displayName(QStringLiteral("a\x1B[2Jb\u202Ec/д")), QStringLiteral("a\uFFFD[2Jb\uFFFDc/д"));
    EXPECT_EQ(displayName(QStringLiteral("ATZ\r\n\t")), QStringLiteral("ATZ\\r\\n\\t"));
}

TEST(Names, WhatIsInvisibleIsNotShown)
{
    for (const uint character : {0x1Bu, 0x9Bu, 0x00ADu, 0x061Cu, 0x180Eu, 0x200Bu, 0x200Fu, 0x202Eu, 0x2060u, 0x2067u,
                                 0x206Au, 0xFEFFu, 0xFFF9u, 0xE0041u}) {
        const uint characters[] = {'a', character, 'b'};
        const QString name = QString::fromUcs4(characters, 3);
        EXPECT_EQ(host::displayName(name), QStringLiteral("a\uFFFDb")) << character;
        EXPECT_EQ(host::safeFileName(name), QStringLiteral("a_b")) << character;
        EXPECT_FALSE(host::isValidAbonentName(name)) << character;
    }
    for (const uint character : {0x200Cu, 0x200Du, 0x0600u, 0x0301u, 0x1F4E0u}) {
        const uint characters[] = {'a', character, 'b'};
        const QString name = QString::fromUcs4(characters, 3);
        EXPECT_EQ(host::displayName(name), name) << character;
    }
}

// Of all format characters only the joiners are kept, and the marks of Arabic, Syriac and Kaithi that
// span the digits behind them: those with the property Prepended_Concatenation_Mark in Unicode 13.
TEST(Names, EveryFormatCharacterIsInvisibleButForTheseFew)
{
    const std::set<uint> shown{0x200C, 0x200D, 0x0600, 0x0601, 0x0602,  0x0603, 0x0604,
                               0x0605, 0x06DD, 0x070F, 0x08E2, 0x110BD, 0x110CD};
    for (uint character = 0; character <= QChar::LastValidCodePoint; ++character) {
        if (QChar::category(character) != QChar::Other_Format)
            continue;
        const uint characters[] = {'a', character, 'b'}; // alone, one of them would be taken for a byte order mark
        const QString text = QString::fromUcs4(characters, 3);
        EXPECT_EQ(host::displayName(text) == text, shown.count(character) > 0) << character;
    }
}
