// Which categories of lines are logged.
#include "common/functiondebug.h"
#include "common/logger.h"
#include "tests/common/loggerfixture.h"

#include <gtest/gtest.h>

using namespace logtest;

namespace {

struct Category
{
    DebugLevel level;
    int value;
    const char* key;
    bool defaultValue;
};

const Category categories[] = {
    {DebugIpcData, 1, "Debug/ipcData", false},
    {DebugIpcExtra, 2, "Debug/ipcExtra", false},
    {DebugIpcSecurityDaemon, 3, "Debug/ipcSecurityDaemon", true},
    {DebugIpcTransport, 4, "Debug/ipcTransport", false},
    {DebugTransportAbonents, 5, "Debug/transportAbonents", false},
    {DebugTransportTransit, 6, "Debug/transportTransit", true},
    {DebugTransportConnects, 7, "Debug/transportConnects", true},
    {DebugTransportDataLifetime, 8, "Debug/transportDataLifetime", false},
    {DebugTransportBaseProtocol, 9, "Debug/transportBaseProtocol", false},
    {DebugTransportProtocol, 10, "Debug/transportProtocol", true},
    {DebugTransportProtocolAttaches, 11, "Debug/transportProtocolAttaches", false},
    {DebugTransportIpSocketError, 12, "Debug/transportIpSocketError", true},
    {DebugTransportComPortError, 13, "Debug/transportComPortError", true},
    {DebugTransportComAtCommands, 14, "Debug/transportComAtCommands", true},
    {DebugTransportComPackets, 15, "Debug/transportComPackets", false},
    {DebugTransportComData, 16, "Debug/transportComData", false},
    {DebugTransportTasks, 17, "Debug/transportTasks", true},
    {DebugJournals, 18, "Debug/journals", true},
    {DebugMessagesAutodelete, 19, "Debug/messagesAutodelete", true},
    {DebugMessagesLock, 20, "Debug/messagesLock", false},
};

QByteArray everyCategoryOff()
{
    QByteArray content("[Debug]\nall=false\n");
    for (const Category& category : categories)
        content += QByteArray(category.key).mid(6) + "=false\n";
    return content;
}

} // namespace

TEST(LogCategories, HaveTheirNumbers)
{
    EXPECT_EQ(int(DebugAlways), 0);
    for (const Category& category : categories)
        EXPECT_EQ(int(category.level), category.value);
    EXPECT_EQ(int(DebugFlagNone), 0);
    EXPECT_EQ(int(DebugFlagFileOnly), 1);
}

TEST(LogCategories, MissingKeysDecideByTheirDefaultsAndEnterTheFile)
{
    beginEmptyLog();
    QMap<QString, QString> expectedKeys;
    QStringList expectedTexts;
    for (const Category& category : categories) {
        logText(category.key, category.level);
        expectedKeys.insert(QString::fromLatin1(category.key),
                            category.defaultValue ? QStringLiteral("true") : QStringLiteral("false"));
        if (category.defaultValue)
            expectedTexts.append(QString::fromLatin1(category.key));
        EXPECT_EQ(settingsOnDisk(), expectedKeys);
        EXPECT_EQ(logTexts(), expectedTexts);
    }
    EXPECT_EQ(expectedTexts.size(), 10);
}

TEST(LogCategories, KeysDecideOnEveryCall)
{
    beginEmptyLog();
    QStringList expected;
    for (const Category& category : categories) {
        editSettings(everyCategoryOff());
        logText("off", category.level);
        editSettings(everyCategoryOff().replace(QByteArray(category.key).mid(6) + "=false",
                                                QByteArray(category.key).mid(6) + "=true"));
        logText(category.key, category.level);
        expected.append(QString::fromLatin1(category.key));
    }
    EXPECT_EQ(logTexts(), expected);
}

TEST(LogCategories, WhatIsOffLeavesNoTrace)
{
    qputenv("USER", "operator");
    editSettings(everyCategoryOff());
    const MessageRecorder recorder;
    debug(label, QStringLiteral("text"), DebugTransportConnects, DebugFlagNone);
    EXPECT_TRUE(recorder.messages().isEmpty());
    EXPECT_FALSE(QFile::exists(logDirPath()));
    EXPECT_TRUE(LoggerData::debugData()->tabs.isEmpty());
}

TEST(LogCategories, LevelsWithoutAKeyAreAlwaysLogged)
{
    beginEmptyLog();
    editSettings(everyCategoryOff());
    const QByteArray settings = contentOf(settingsPath());
    for (const int level : {0, 21, 22, 1000})
        logText("text", DebugLevel(level));
    EXPECT_EQ(logTexts().size(), 4);
    EXPECT_EQ(contentOf(settingsPath()), settings);
}

TEST(LogCategories, FullTracingOpensAll)
{
    beginEmptyLog();
    editSettings(everyCategoryOff());
    for (const int tracing : {1, 2}) {
        gFunctionsDebuging = tracing;
        for (const Category& category : categories)
            logText("text", category.level);
    }
    EXPECT_EQ(logTexts().size(), 40);
}

TEST(LogCategories, FullTracingIsNotReadHere)
{
    beginEmptyLog();
    editSettings(everyCategoryOff().replace("all=false", "all=true"));
    for (const int tracing : {-1, 0}) {
        gFunctionsDebuging = tracing;
        logText("text", DebugTransportConnects);
        EXPECT_EQ(gFunctionsDebuging.load(), tracing);
    }
    EXPECT_TRUE(logTexts().isEmpty());
}
