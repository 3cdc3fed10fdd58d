// Names of messages and tasks.
#include "common/global.h"
#include "rig/testroot.h"
#include "tests/common/printing.h"

#include <QFile>
#include <QFileInfo>
#include <gtest/gtest.h>

namespace {

class Naming : public testing::Test
{
protected:
    Naming() : dir(rig::installRoot() + QStringLiteral("/names")) { QDir().mkpath(dir.path()); }

    void putDirs(const QStringList& names)
    {
        for (const QString& name : names)
            ASSERT_TRUE(dir.mkdir(name)) << qPrintable(name);
    }

    void putFiles(const QStringList& names)
    {
        for (const QString& name : names) {
            QFile file(dir.absoluteFilePath(name));
            ASSERT_TRUE(file.open(QIODevice::WriteOnly)) << qPrintable(name);
        }
    }

    static QStringList numbered(int first, int last, const QString& suffix = {})
    {
        QStringList names;
        for (int number = first; number <= last; ++number)
            names.append(QString::asprintf("%08d", number) + suffix);
        return names;
    }

    QString message() { return Global::nextMessageDirName(dir); }
    QString task() { return Global::nextTaskFileName(dir); }

    const QDir dir;
    const QString suffix = QStringLiteral(".task");
};

QString s(const char* text)
{
    return QString::fromLatin1(text);
}

} // namespace

// --- Messages

TEST_F(Naming, FirstMessage)
{
    EXPECT_EQ(message(), s("00000001"));
    EXPECT_TRUE(dir.isEmpty()); // nothing is created
}

TEST_F(Naming, FirstMessageOfAMissingDirectory)
{
    EXPECT_EQ(Global::nextMessageDirName(QDir(dir.absoluteFilePath(s("missing")))), s("00000001"));
    EXPECT_TRUE(dir.isEmpty());
}

TEST_F(Naming, MessageAfterTheLast)
{
    putDirs({s("00000007"), s("tmp")});
    EXPECT_EQ(message(), s("00000008"));
}

TEST_F(Naming, OnlyEightDigitsAreAMessage)
{
    putDirs({s("00000009"), s("100000000"), s("00000010"), s("tmp"), s("0000099"), s("0000011a"), s("-0000012")});
    EXPECT_EQ(message(), s("00000011"));
}

TEST_F(Naming, MessagesCountOnFromTheLastNameGiven)
{
    putDirs({s("00000003")});
    EXPECT_EQ(message(), s("00000004"));
    EXPECT_EQ(message(), s("00000005")); // although 4 has not been created
    putDirs({s("00000050")});
    EXPECT_EQ(message(), s("00000006")); // not looked for again
    putDirs({s("00000007"), s("00000008")});
    EXPECT_EQ(message(), s("00000009")); // but not given twice
}

TEST_F(Naming, FilesBlockMessagesButDoNotCount)
{
    putFiles({s("00000001"), s("00000009")});
    EXPECT_EQ(message(), s("00000002"));
}

TEST_F(Naming, HundredMessagesAreTried)
{
    putFiles(numbered(1, 99));
    EXPECT_EQ(message(), s("00000100"));
}

TEST_F(Naming, NoMessageAfterAHundredTaken)
{
    putFiles(numbered(1, 100));
    EXPECT_EQ(message(), QString());
    // Nothing is remembered of it.
    ASSERT_TRUE(QFile::remove(dir.absoluteFilePath(s("00000042"))));
    EXPECT_EQ(message(), s("00000042"));
}

TEST_F(Naming, NoMessageAfterAHundredTakenBehindTheLastGiven)
{
    putDirs({s("00000005")});
    EXPECT_EQ(message(), s("00000006"));
    putDirs(numbered(7, 106));
    EXPECT_EQ(message(), QString());
    EXPECT_EQ(message(), QString());
    ASSERT_TRUE(dir.rmdir(s("00000106")));
    EXPECT_EQ(message(), s("00000106"));
    EXPECT_EQ(message(), s("00000107"));
}

TEST_F(Naming, MessagesOfNineDigits)
{
    putDirs({s("99999999")});
    EXPECT_EQ(message(), s("100000000"));
    EXPECT_EQ(message(), s("100000001"));
}

TEST_F(Naming, MessagesAreCountedByAbsolutePath)
{
    ASSERT_TRUE(QDir::setCurrent(rig::installRoot()));
    EXPECT_EQ(message(), s("00000001"));
    EXPECT_EQ(Global::nextMessageDirName(QDir(s("names"))), s("00000002"));
    EXPECT_EQ(Global::nextMessageDirName(QDir(s("./names/"))), s("00000003"));
    EXPECT_EQ(message(), s("00000004"));
}

TEST_F(Naming, DirectoriesAreCountedApart)
{
    putDirs({s("a"), s("b")});
    const QDir a(dir.absoluteFilePath(s("a")));
    const QDir b(dir.absoluteFilePath(s("b")));
    EXPECT_EQ(Global::nextMessageDirName(a), s("00000001"));
    EXPECT_EQ(Global::nextMessageDirName(a), s("00000002"));
    EXPECT_EQ(Global::nextMessageDirName(b), s("00000001"));
    EXPECT_EQ(Global::nextTaskFileName(a), s("00000001.task"));
    EXPECT_EQ(Global::nextTaskFileName(b), s("00000001.task"));
}

// --- Tasks

TEST_F(Naming, FirstTask)
{
    EXPECT_EQ(task(), s("00000001.task"));
    EXPECT_TRUE(dir.isEmpty());
}

TEST_F(Naming, MessagesAndTasksAreCountedApart)
{
    EXPECT_EQ(message(), s("00000001"));
    EXPECT_EQ(task(), s("00000001.task"));
    EXPECT_EQ(message(), s("00000002"));
    EXPECT_EQ(task(), s("00000002.task"));
}

TEST_F(Naming, TaskAfterTheLast)
{
    putFiles({s("00000007.task"), s("00000041.task"), s("00000099.txt")});
    putDirs({s("00000077.task")});
    EXPECT_EQ(task(), s("00000042.task"));
}

TEST_F(Naming, LastTaskDecidesWhateverItsName)
{
    putFiles({s("00000007.task"), s("a.task")});
    EXPECT_EQ(task(), s("00000001.task"));
    EXPECT_EQ(task(), s("00000002.task"));
}

TEST_F(Naming, TaskNumberEndsAtTheFirstPoint)
{
    putFiles({s("00000005.bak.task")});
    EXPECT_EQ(task(), s("00000006.task"));
}

TEST_F(Naming, TaskNumberOfAnyLength)
{
    putFiles({s("12.task")});
    EXPECT_EQ(task(), s("00000013.task"));
}

TEST_F(Naming, TasksCountOnFromTheLastNameGiven)
{
    putFiles({s("00000003.task")});
    EXPECT_EQ(task(), s("00000004.task"));
    putFiles({s("00000050.task")});
    EXPECT_EQ(task(), s("00000005.task"));
    putDirs({s("00000006.task")}); // whatever it is
    EXPECT_EQ(task(), s("00000007.task"));
}

TEST_F(Naming, NinetyNineTasksAreTried)
{
    putDirs(numbered(1, 98, suffix)); // directories are no tasks, so the first is 1
    EXPECT_EQ(task(), s("00000099.task"));
}

TEST_F(Naming, RandomTaskAfterNinetyNineTaken)
{
    putDirs(numbered(1, 99, suffix));
    QT_WARNING_PUSH
    QT_WARNING_DISABLE_DEPRECATED
    qsrand(7);
    const int first = qrand();
    const int second = qrand();
    qsrand(7);
    QT_WARNING_POP
    putFiles({s("_%1.task").arg(second)});
    EXPECT_EQ(task(), s("_%1.task").arg(first));
    EXPECT_EQ(task(), s("_%1.task").arg(second)); // no look at what exists
}

TEST_F(Naming, NothingIsRememberedOfARandomTask)
{
    putDirs(numbered(1, 99, suffix));
    ASSERT_EQ(task().at(0), QLatin1Char('_'));
    ASSERT_TRUE(dir.rmdir(s("00000042.task")));
    EXPECT_EQ(task(), s("00000042.task"));
    EXPECT_EQ(task(), s("00000100.task"));
}

TEST_F(Naming, TasksOfNineDigits)
{
    putFiles({s("99999999.task")});
    EXPECT_EQ(task(), s("100000000.task"));
    EXPECT_EQ(task(), s("100000001.task"));
}

TEST_F(Naming, TasksAreCountedByPathAsGiven)
{
    ASSERT_TRUE(QDir::setCurrent(rig::installRoot()));
    EXPECT_EQ(task(), s("00000001.task"));
    EXPECT_EQ(task(), s("00000002.task"));
    EXPECT_EQ(Global::nextTaskFileName(QDir(s("names"))), s("00000001.task"));
    EXPECT_EQ(task(), s("00000003.task"));
    EXPECT_EQ(Global::nextTaskFileName(QDir(s("names"))), s("00000002.task"));
}
