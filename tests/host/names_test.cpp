#include "host/names.h"

#include <QFile>

#include <gtest/gtest.h>

using namespace host;

TEST(SafeFileName, HarmlessNamesStay)
{
    for (const QString& name : {QStringLiteral("report.txt"), QStringLiteral("Отчёт за май.txt"), QStringLiteral("報告 書.tar.gz"),
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
    EXPECT_EQ(safeFileName(QStringLiteral("a") + QChar(0) + QStringLiteral("b\n\x7F\x1B[2J")), QStringLiteral("a_b___[2J"));
    EXPECT_EQ(safeFileName(QStringLiteral("gpj.\u202Eexe")), QStringLiteral("gpj._exe"));
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
    for (const QString& name : {QStringLiteral("../x"), QString(700, QLatin1Char('.')), QStringLiteral(" a "), QStringLiteral("\t.x")})
        EXPECT_EQ(safeFileName(safeFileName(name)), safeFileName(name));
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
