// Each key of settings.ini: what stands in the file, what is made of it, what is put right.
#include "tests/common/settingskeytables.h"

#include <QFile>
#include <gtest/gtest.h>

using namespace logtest;

namespace {

// Whether value stands in the file as it is, and is what the getter returns.
void expectKept(const IntKey& key, int value)
{
    const QString text = QString::number(value);
    editSettings(iniOf(keyText(key.key), text));
    EXPECT_EQ(intOf(key), value) << key.key;
    EXPECT_EQ(settingsOnDisk().value(keyText(key.key)), text) << key.key;
}

void expectReplaced(const IntKey& key, const QString& text)
{
    editSettings(iniOf(keyText(key.key), text));
    EXPECT_EQ(intOf(key), key.defaultValue) << key.key << " was " << qPrintable(text);
    EXPECT_EQ(settingsOnDisk().value(keyText(key.key)), QString::number(key.defaultValue))
        << key.key << " was " << qPrintable(text);
}

} // namespace

TEST(SettingsKeys, MissingSwitchesReturnTheirDefaultsAndEnterTheFile)
{
    QMap<QString, QString> expected;
    for (const BoolKey& key : boolKeys) {
        EXPECT_EQ(boolOf(key), key.defaultValue) << key.key;
        expected.insert(keyText(key.key), boolText(key.defaultValue));
        EXPECT_EQ(settingsOnDisk(), expected) << key.key;
    }
    EXPECT_EQ(expected.size(), 21);
}

TEST(SettingsKeys, SwitchesInTheFileCountAndStay)
{
    for (const BoolKey& key : boolKeys) {
        const QByteArray content = iniOf(keyText(key.key), boolText(!key.defaultValue));
        editSettings(content);
        EXPECT_EQ(boolOf(key), !key.defaultValue) << key.key;
        EXPECT_EQ(contentOf(settingsPath()), content);
    }
}

TEST(SettingsKeys, EachLevelOfTheLogHasItsSwitch)
{
    for (const BoolKey& key : boolKeys) {
        if (key.level == 0)
            continue;
        editSettings(iniOf(keyText(key.key), boolText(!key.defaultValue)));
        EXPECT_EQ(CSettings().debugCategory(key.level), !key.defaultValue) << key.key;
        EXPECT_EQ(settingsOnDisk().keys(), QStringList{keyText(key.key)});
    }
}

TEST(SettingsKeys, LevelsWithoutASwitchAreOnAndNameNoKey)
{
    for (const int level : {lowest, -1, 0, 21, 22, 1000, highest})
        EXPECT_TRUE(CSettings().debugCategory(level)) << level;
    EXPECT_FALSE(QFile::exists(settingsPath()));
}

TEST(SettingsKeys, SwitchesConvertAsQtConvertsTexts)
{
    const BoolKey& defaultTrue = boolKeys[7];
    const BoolKey& defaultFalse = boolKeys[1];
    for (const char* text : {"true", "TRUE", "1", "2", "-1", "yes", "no", "off", "abc", "00", "0.0"}) {
        editSettings(iniOf(keyText(defaultFalse.key), keyText(text)));
        EXPECT_TRUE(boolOf(defaultFalse)) << text;
        EXPECT_EQ(settingsOnDisk().value(keyText(defaultFalse.key)), keyText(text));
    }
    for (const char* text : {"", "0", "false", "False", "FALSE", "true, true", "@Invalid()"}) {
        editSettings(iniOf(keyText(defaultTrue.key), keyText(text)));
        EXPECT_FALSE(boolOf(defaultTrue)) << text;
        EXPECT_EQ(settingsOnDisk().value(keyText(defaultTrue.key)), keyText(text));
    }
}

TEST(SettingsKeys, MissingNumbersReturnTheirDefaultsAndEnterTheFile)
{
    QMap<QString, QString> expected;
    for (const IntKey& key : intKeys) {
        EXPECT_EQ(intOf(key), key.defaultValue) << key.key;
        expected.insert(keyText(key.key), QString::number(key.defaultValue));
        EXPECT_EQ(settingsOnDisk(), expected) << key.key;
    }
}

TEST(SettingsKeys, NumbersInRangeAreKept)
{
    for (const IntKey& key : intKeys) {
        expectKept(key, key.minimum);
        expectKept(key, key.maximum);
        expectKept(key, key.maximum - 1);
        expectKept(key, key.minimum + 1);
    }
}

TEST(SettingsKeys, NumbersWithoutARangeMayBeNegative)
{
    for (const IntKey& key : intKeys) {
        if (key.minimum == lowest) {
            expectKept(key, -5);
            expectKept(key, 0);
        }
    }
}

TEST(SettingsKeys, OddPermissionBitsAreKept)
{
    expectKept(intKeys[1], 0x6100);
    expectKept(intKeys[0], 0x7123);
}

TEST(SettingsKeys, NumbersOutOfRangeAreReplaced)
{
    for (const IntKey& key : intKeys) {
        expectReplaced(key, QString::number(qint64(key.minimum) - 1));
        expectReplaced(key, QString::number(qint64(key.maximum) + 1));
    }
    expectReplaced(intKeys[0], QStringLiteral("28672")); // 0x7000
    expectReplaced(intKeys[2], QStringLiteral("99"));
    expectReplaced(intKeys[2], QStringLiteral("10001"));
}

TEST(SettingsKeys, WhatIsNoDecimalNumberIsReplaced)
{
    for (const IntKey& key : intKeys) {
        for (const char* text : {"", "abc", "0x7777", "30000.0", "3e4", "true", "30000 ms", "30000, 30000"})
            expectReplaced(key, keyText(text));
    }
}

TEST(SettingsKeys, HugeNumbersDoNotWrapIntoTheRange)
{
    for (const IntKey& key : intKeys) {
        // The default plus or minus multiples of 2^32, and what no 64 bits hold.
        for (const qint64 turns : {1, -1, 2, 1000000})
            expectReplaced(key, QString::number(turns * 4294967296 + key.defaultValue));
        expectReplaced(key, QStringLiteral("99999999999999999999999999"));
        expectReplaced(key, QStringLiteral("-99999999999999999999999999"));
    }
}

TEST(SettingsKeys, TheControlSymbolIsACarriageReturnUnlessSet)
{
    EXPECT_EQ(CSettings().detailsTransportComControlSymbol(), QStringLiteral("\r"));
    EXPECT_EQ(settingsOnDisk().value(symbolKey), QStringLiteral("\\r"));

    for (const char* text : {"\\r\\n", "\\n", "\";\"", "", "abc"}) {
        editSettings(iniOf(symbolKey, keyText(text)));
        const QString expected = keyText(text)
                                     .replace(QStringLiteral("\\r"), QStringLiteral("\r"))
                                     .replace(QStringLiteral("\\n"), QStringLiteral("\n"))
                                     .remove(QLatin1Char('"'));
        EXPECT_EQ(CSettings().detailsTransportComControlSymbol(), expected) << text;
        EXPECT_EQ(settingsOnDisk().value(symbolKey), keyText(text));
    }
}

TEST(SettingsKeys, AreCaseSensitive)
{
    editSettings("[details]\nmaxWritingTime=200\n[Details]\nMaxWritingTime=300\n");
    EXPECT_EQ(CSettings().detailsMaxWritingTime(), 5000);
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("Details/maxWritingTime")), QStringLiteral("5000"));
    EXPECT_EQ(settingsOnDisk().value(QStringLiteral("details/maxWritingTime")), QStringLiteral("200"));
}

TEST(SettingsKeys, AFileFullOfRubbishIsAsGoodAsAnEmptyOne)
{
    QByteArray rubbish;
    for (int i = 0; i < 5000; ++i)
        rubbish.append(char(i * 7919 % 251));
    editSettings(rubbish);
    for (const BoolKey& key : boolKeys)
        EXPECT_EQ(boolOf(key), key.defaultValue) << key.key;
    for (const IntKey& key : intKeys)
        EXPECT_EQ(intOf(key), key.defaultValue) << key.key;
}

TEST(SettingsKeys, ConsultingEverythingListsEverything)
{
    consultEverything();
    EXPECT_EQ(settingsOnDisk().keys(), expectedKeys());
}

// The page for operators: a row for each key, with what this program does.
TEST(SettingsKeys, AreDocumentedAsTheyAre)
{
    const QString page = QString::fromUtf8(contentOf(QStringLiteral(SETTINGS_PAGE)));
    ASSERT_FALSE(page.isEmpty());
    const auto name = [](const char* key) {
        return QLatin1Char('`') + keyText(key).section(QLatin1Char('/'), 1) + QLatin1Char('`');
    };
    for (const BoolKey& key : boolKeys)
        EXPECT_TRUE(page.contains(QStringLiteral("| ") + name(key.key) + QStringLiteral(" | ") +
                                  boolText(key.defaultValue) + QStringLiteral(" |")))
            << key.key;
    for (const IntKey& key : intKeys) {
        const QString range = key.minimum == lowest ? QStringLiteral("any")
                                                    : QStringLiteral("%1 to %2").arg(key.minimum).arg(key.maximum);
        const QStringList row = page.section(QStringLiteral("\n| ") + name(key.key) + QStringLiteral(" | "), 1)
                                    .section(QLatin1Char('\n'), 0, 0)
                                    .split(QStringLiteral(" | "));
        ASSERT_GE(row.size(), 4) << key.key;
        EXPECT_TRUE(row.at(0).startsWith(QStringLiteral("int"))) << key.key;
        EXPECT_EQ(row.at(1).section(QLatin1Char(' '), 0, 0), QString::number(key.defaultValue)) << key.key;
        EXPECT_TRUE(row.at(2).startsWith(range)) << key.key;
    }
    EXPECT_TRUE(page.contains(QStringLiteral("| `transportComControlSymbol` | text | `\\r` ")));
}
