// What happens to lines that cannot be written, and to the troubles told of them.
#include "common/logfile.h"
#include "rig/time/virtualclock.h"
#include "tests/common/loggerfixture.h"
#include "tests/common/refusedchmod.h"
#include "tests/support/systemcalls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/resource.h>
#include <sys/stat.h>

using namespace logtest;

namespace {

QString systemText(int error)
{
    return QString::fromLocal8Bit(std::strerror(error));
}

QString refusedOpening(const QString& path, const QString& reason)
{
    return QStringLiteral("Ошибка открытия файла для записи: \"%1\" \"%2\"").arg(path, reason);
}

} // namespace

TEST(LogTroubles, AMissingDirectoryComesBackAtOnce)
{
    beginEmptyLog();
    logText("before");
    ASSERT_TRUE(QDir(rootPath(QStringLiteral("data"))).removeRecursively());
    const MessageRecorder recorder;
    logText("after");
    EXPECT_EQ(logTexts().last(), QStringLiteral("after"));
    EXPECT_EQ(modeOf(logDirPath()), 0777);
    EXPECT_TRUE(contentOf(logPath()).startsWith("Версия "));
    EXPECT_TRUE(recorder.messages().isEmpty());
}

TEST(LogTroubles, ADirectoryThatCannotBeMadeLosesOneMessage)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(logDirPath()));
    const MessageRecorder recorder;
    logText("lost");
    // What stands there is a file: it is taken for no directory.
    EXPECT_EQ(recorder.texts(QtWarningMsg),
              QStringList{QStringLiteral("Не удалось создать каталог для записи лога \"%1\"").arg(logDirPath())});
    EXPECT_EQ(recorder.messages().size(), 1);
    EXPECT_TRUE(lockIsFree());
    ASSERT_TRUE(QFile::remove(logDirPath()));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
    EXPECT_FALSE(contentOf(logPath()).contains("lost"));
}

TEST(LogTroubles, AFailureLooksForTheLevelAgain)
{
    beginEmptyLog();
    logText("level 0");
    ASSERT_TRUE(QDir(rootPath(QStringLiteral("data/0"))).removeRecursively());
    ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/0"))));
    ASSERT_TRUE(writeFile(logPath(firstDay(), 1)));
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.messages().size(), 1);
    logText("level 1");
    EXPECT_EQ(logTexts(logPath(firstDay(), 1)), QStringList{QStringLiteral("level 1")});
}

TEST(LogTroubles, AFileThatCannotBeOpenedLosesOneMessage)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(logPath()));
    const MessageRecorder recorder;
    logText("lost");
    ASSERT_EQ(recorder.messages().size(), 1);
    const QString warning = recorder.texts(QtWarningMsg).value(0);
    const QString head = QStringLiteral("Ошибка открытия файла для записи: \"%1\" \"").arg(logPath());
    EXPECT_TRUE(warning.startsWith(head) && warning.size() > head.size() + 1) << qPrintable(warning);
    EXPECT_TRUE(lockIsFree());
    ASSERT_TRUE(QDir().rmdir(logPath()));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
    EXPECT_FALSE(contentOf(logPath()).contains("lost"));
}

TEST(LogTroubles, AReadOnlyDirectoryLosesMessagesUntilItIsWritable)
{
    obeyPermissionBits();
    qputenv("USER", "operator");
    ASSERT_TRUE(QDir().mkpath(logDirPath()));
    ASSERT_EQ(chmod(QFile::encodeName(logDirPath()).constData(), 0555), 0);
    const MessageRecorder recorder;
    logText("lost");
    logText("lost too");
    const QString warning = refusedOpening(logPath(), systemText(EACCES));
    EXPECT_EQ(recorder.texts(QtWarningMsg), (QStringList{warning, warning}));
    ASSERT_EQ(chmod(QFile::encodeName(logDirPath()).constData(), 0755), 0);
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}

TEST(LogTroubles, AReadOnlyFileLosesMessagesUntilItIsWritable)
{
    obeyPermissionBits();
    beginEmptyLog();
    ASSERT_EQ(chmod(QFile::encodeName(logPath()).constData(), 0444), 0);
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg), QStringList{refusedOpening(logPath(), systemText(EACCES))});
    ASSERT_EQ(chmod(QFile::encodeName(logPath()).constData(), 0644), 0);
    logText("there");
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("there")});
}

TEST(LogTroubles, RefusedPermissionsAreReportedAndTheLineIsWritten)
{
    qputenv("USER", "operator");
    // So that the settings have no permissions to set.
    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    const MessageRecorder recorder;
    const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(), testsupport::refusedChmod());
    logText("text");
    ASSERT_EQ(recorder.messages().size(), 2);
    EXPECT_EQ(recorder.messages().at(0).type, QtDebugMsg);
    EXPECT_EQ(recorder.messages().at(0).text,
              QStringLiteral("Не удалось изменить права доступа для каталога \"%1\" \"%2\"")
                  .arg(logDirPath(), systemText(EPERM)));
    EXPECT_EQ(recorder.messages().at(1).type, QtWarningMsg);
    EXPECT_EQ(
        recorder.messages().at(1).text,
        QStringLiteral("Не удалось изменить права доступа для файла: \"%1\" \"%2\"").arg(logPath(), systemText(EPERM)));
    EXPECT_EQ(logTexts().last(), QStringLiteral("text"));
}

TEST(LogTroubles, AFullDiskLosesOnlyTheLinesAtHand)
{
    beginEmptyLog();
    logText("before");
    const QString kept = logPath() + QStringLiteral(".kept");
    ASSERT_TRUE(QFile::rename(logPath(), kept));
    ASSERT_TRUE(QFile::link(QStringLiteral("/dev/full"), logPath()));
    const MessageRecorder recorder;
    const auto warnings = [&recorder] { return recorder.texts(QtWarningMsg); };
    logText("lost");
    const QString warning =
        QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи.  \"%1\"").arg(systemText(ENOSPC));
    EXPECT_EQ(warnings(), QStringList{warning});
    logText("each\npart");
    EXPECT_EQ(warnings(), (QStringList{warning, warning, warning}));
    EXPECT_TRUE(lockIsFree());

    ASSERT_TRUE(QFile::remove(logPath()));
    ASSERT_TRUE(QFile::rename(kept, logPath()));
    logText("after");
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("before"), QStringLiteral("after")}));
}

TEST(LogTroubles, ADiskThatFillsInTheMiddleOfALineKeepsItsBeginning)
{
    beginEmptyLog();
    logText("before");
    const qint64 size = QFileInfo(logPath()).size();
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit unlimited{};
    ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &unlimited), 0);
    const rlimit tight{rlim_t(size + 45), unlimited.rlim_max};
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &tight), 0);
    const MessageRecorder recorder;
    logText("0123456789");
    const QStringList whileFull = logLines();
    logText("lost");
    const QStringList stillFull = logLines();
    ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &unlimited), 0);
    logText("after\nroom");

    ASSERT_EQ(whileFull.size(), 2);
    EXPECT_EQ(whileFull.at(1).mid(42), QStringLiteral("012"));
    EXPECT_EQ(stillFull, whileFull);
    // The line that was cut is silent, the one that was refused is not.
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    const QByteArray content = contentOf(logPath());
    EXPECT_FALSE(content.contains("lost"));
    EXPECT_TRUE(content.contains("    after\n"));
    EXPECT_TRUE(content.endsWith("    room\n"));
}

TEST(LogTroubles, ShortWritesAreContinuedTenTimes)
{
    for (const int failures : {10, 11}) {
        QFile::remove(logPath());
        beginEmptyLog();
        logText("before");
        const QByteArray before = contentOf(logPath());
        const MessageRecorder recorder;
        {
            int writes = 0;
            const testsupport::SystemCallWatch watch(logPath().toStdString(), [&](testsupport::SystemCall& call) {
                if (call.name != "write")
                    return 0;
                ++writes;
                // The first takes five bytes, then that many fail.
                if (writes == 1)
                    call.bytes = 5;
                return writes > 1 && writes <= 1 + failures ? ENOSPC : 0;
            });
            logText("text");
        }
        const QByteArray added = contentOf(logPath()).mid(before.size());
        if (failures == 10) {
            EXPECT_TRUE(added.endsWith("    text\n"));
            EXPECT_EQ(added.size(), 38 + 4 + 5);
        } else {
            EXPECT_EQ(added.size(), 5);
        }
        // Silently either way.
        EXPECT_TRUE(recorder.messages().isEmpty());
    }
}

TEST(LogTroubles, AnInterruptedWriteIsRepeated)
{
    beginEmptyLog();
    const MessageRecorder recorder;
    int writes = 0;
    {
        const testsupport::SystemCallWatch watch(logPath().toStdString(), [&](testsupport::SystemCall& call) {
            return call.name == "write" && ++writes <= 20 ? EINTR : 0;
        });
        logText("text");
    }
    EXPECT_EQ(writes, 21);
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("text")});
    EXPECT_TRUE(recorder.messages().isEmpty());
}

TEST(LogTroubles, AWriteThatTakesNothingIsAnError)
{
    beginEmptyLog();
    const MessageRecorder recorder;
    {
        const testsupport::SystemCallWatch watch(logPath().toStdString(), [](testsupport::SystemCall& call) {
            if (call.name == "write")
                call.bytes = 0;
            return 0;
        });
        errno = ENOENT; // of something before
        logText("lost");
    }
    EXPECT_EQ(
        recorder.texts(QtWarningMsg),
        QStringList{
            QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи.  \"%1\"").arg(systemText(EIO))});
    EXPECT_EQ(contentOf(logPath()), QByteArray());
}

TEST(LogTroubles, NothingToWriteIsNoError)
{
    beginEmptyLog();
    const ExistingLog log(QFile::encodeName(logPath()));
    ASSERT_TRUE(log.isOpen());
    EXPECT_EQ(writeToLog(log.descriptor(), "", 0), 0);
    EXPECT_EQ(writeToLog(log.descriptor(), "text", 4), 4);
    EXPECT_EQ(contentOf(logPath()), QByteArray("text"));
}

TEST(LogTroubles, ARefusedWriteFindsTheFileAnew)
{
    beginEmptyLog();
    rig::VirtualClock clock;
    logText("before");
    clock.stepWallClockMs(24 * 3600 * 1000);
    const MessageRecorder recorder;
    {
        const testsupport::SystemCallWatch watch(
            logPath().toStdString(), [](testsupport::SystemCall& call) { return call.name == "write" ? EIO : 0; });
        logText("lost");
    }
    EXPECT_EQ(
        recorder.texts(QtWarningMsg),
        QStringList{
            QStringLiteral("Не удалось записать данные в лог файл. Ошибка записи.  \"%1\"").arg(systemText(EIO))});
    logText("after");
    EXPECT_EQ(logTexts(), QStringList{QStringLiteral("before")});
    EXPECT_EQ(logTexts(logPath(firstDay().addDays(1))).last(), QStringLiteral("after"));
}

TEST(LogTroubles, AMessageHandlerMayLog)
{
    beginEmptyLog();
    MessageRecorder recorder;
    recorder.setHandler(
        [](const Message& message) { debug(QStringLiteral("Qt"), message.text, DebugAlways, DebugFlagFileOnly); });
    debug(label, QStringLiteral("text"), DebugAlways, DebugFlagNone);
    EXPECT_EQ(logTexts(), (QStringList{QStringLiteral("\"CComServer\" \"text\""), QStringLiteral("text")}));
}

TEST(LogTroubles, AMessageHandlerMayLogTheTroublesOfTheLog)
{
    qputenv("USER", "operator");
    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(), testsupport::refusedChmod());
    MessageRecorder recorder;
    recorder.setHandler([](const Message& message) {
        debug(QStringLiteral("Qt"), message.text, DebugTransportConnects, DebugFlagFileOnly);
    });
    logText("text");
    const QStringList texts = logTexts();
    ASSERT_GE(texts.size(), 3);
    EXPECT_EQ(texts.at(texts.size() - 3), QStringLiteral("text"));
    EXPECT_TRUE(
        texts.at(texts.size() - 2).startsWith(QStringLiteral("Не удалось изменить права доступа для каталога")));
    EXPECT_TRUE(texts.at(texts.size() - 1).startsWith(QStringLiteral("Не удалось изменить права доступа для файла:")));
}

TEST(LogTroubles, AMessageHandlerThatLogsIntoABrokenLogComesToAnEnd)
{
    qputenv("USER", "operator");
    ASSERT_TRUE(writeFile(logDirPath()));
    MessageRecorder recorder;
    recorder.setHandler(
        [](const Message& message) { debug(QStringLiteral("Qt"), message.text, DebugAlways, DebugFlagFileOnly); });
    logText("lost");
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 1);
    logText("lost too");
    EXPECT_EQ(recorder.texts(QtWarningMsg).size(), 2);
    EXPECT_TRUE(lockIsFree());
    ASSERT_TRUE(QFile::remove(logDirPath()));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}

TEST(LogTroubles, AMessageHandlerMayLogWhatQtSaysWhileTheFileIsWritten)
{
    qputenv("USER", "operator");
    editSettings("[Permissions]\ndirPermissions=30583\nfilePermissions=26214\n");
    MessageRecorder recorder;
    recorder.setHandler(
        [](const Message& message) { debug(QStringLiteral("Qt"), message.text, DebugAlways, DebugFlagFileOnly); });
    testing::internal::CaptureStderr();
    {
        const testsupport::SystemCallWatch watch(rig::installRoot().toStdString(),
                                                 testsupport::refusedChmod([] { qWarning("from within"); }));
        logText("text");
    }
    const std::string errorOutput = testing::internal::GetCapturedStderr();
    // For the directory, and for the file.
    EXPECT_EQ(errorOutput, "Qt from within\nQt from within\n");
    EXPECT_TRUE(lockIsFree());
    EXPECT_TRUE(logTexts().contains(QStringLiteral("text")));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}

TEST(LogTroubles, NoLevelThatCanBeWrittenIsNoReasonToStop)
{
    qputenv("USER", "operator");
    for (int level = 0; level < 4; ++level)
        ASSERT_TRUE(writeFile(rootPath(QStringLiteral("data/%1").arg(level))));
    const MessageRecorder recorder;
    logText("lost");
    EXPECT_EQ(recorder.texts(QtCriticalMsg).size(), 1);
    EXPECT_EQ(recorder.texts(QtWarningMsg).last(),
              QStringLiteral("Не удалось создать каталог для записи лога \"%1\"").arg(logDirPath()));
    for (int level = 0; level < 4; ++level)
        ASSERT_TRUE(QFile::remove(rootPath(QStringLiteral("data/%1").arg(level))));
    logText("there");
    EXPECT_EQ(logTexts().last(), QStringLiteral("there"));
}
