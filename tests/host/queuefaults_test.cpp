// What the queue tells of what it cannot do, whole, and what it leaves then.
#include "host/store/outgoingqueue.h"
#include "tests/host/storetools.h"
#include "tests/support/systemcalls.h"

#include <gtest/gtest.h>

#include <cerrno>

using namespace host;
using namespace hosttest;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

namespace {

class QueueFaults : public testing::Test
{
protected:
    QueueFaults()
    {
        useUtf8Names();
        source = writeFile(root + QStringLiteral("/f.txt"), "content");
    }

    std::string enqueue(const QString& file) { return queue.enqueue(QStringLiteral("Bob"), file).toStdString(); }
    QueuedMessage queued()
    {
        EXPECT_EQ(enqueue(source), "");
        EXPECT_EQ(queue.rescan(), QStringList());
        return queue.messages().value(0);
    }
    QStringList left() const
    {
        return paths.output.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot) +
               paths.tasks.entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    }

    const QString root = rig::installRoot();
    const StorePaths paths = pathsIn(QStringLiteral("q"));
    const std::string output = paths.output.absolutePath().toStdString();
    const std::string tasks = paths.tasks.absolutePath().toStdString();
    OutgoingQueue queue{paths.output, paths.tasks};
    QString source;
};

} // namespace

TEST_F(QueueFaults, FilesThatCannotBeRead)
{
    EXPECT_EQ(enqueue(root + QStringLiteral("/absent")),
              "cannot read " + root.toStdString() + "/absent: No such file or directory");
    EXPECT_EQ(enqueue(root), "cannot send " + root.toStdString() + ": only regular files can be sent");
    EXPECT_EQ(left(), QStringList());
}

TEST_F(QueueFaults, DirectoriesThatCannotBeMade)
{
    writeFile(root + QStringLiteral("/q"), "in the way");
    EXPECT_EQ(enqueue(source), "cannot create " + output + " and " + tasks + ": check that you may write there");
}

TEST_F(QueueFaults, ACopyThatCannotBeWritten)
{
    {
        const SystemCallWatch watch(output, [](SystemCall& call) { return call.name == "write" ? ENOSPC : 0; });
        EXPECT_EQ(enqueue(source), "cannot copy " + source.toStdString() + " into the queue: No space left on device");
    }
    {
        const SystemCallWatch watch(output, [&](SystemCall& call) {
            return call.name == "fsync" && QString::fromStdString(call.path).endsWith(QLatin1String("/content")) ? EIO
                                                                                                                 : 0;
        });
        const std::string told = enqueue(source);
        EXPECT_EQ(told.substr(0, 14 + output.size()), "cannot write " + output + "/");
        EXPECT_EQ(told.substr(told.find("/content")), "/content: Input/output error");
    }
    EXPECT_EQ(left(), QStringList());
}

TEST_F(QueueFaults, ALockThatCannotBeTaken)
{
    const std::string lock = output + "/.lock";
    const SystemCallWatch watch(output, [&](SystemCall& call) { return call.is("open", lock) ? EACCES : 0; });
    EXPECT_EQ(enqueue(source), "cannot lock " + output + ": another program holds the queue");
    EXPECT_EQ(left(), QStringList());
}

TEST_F(QueueFaults, NumbersThatAreAllTaken)
{
    EXPECT_EQ(enqueue(source), "");
    for (int number = 2; number <= 101; ++number)
        paths.output.mkpath(QStringLiteral("%1").arg(number, 8, 10, QLatin1Char('0')));
    EXPECT_EQ(enqueue(source), "no free message number in " + output);
    EXPECT_EQ(paths.tasks.entryList(QDir::Files), QStringList{QStringLiteral("00000001.task")});
}

TEST_F(QueueFaults, ATaskThatCannotBeRemovedKeepsItsMessage)
{
    const QueuedMessage message = queued();
    {
        const SystemCallWatch watch(tasks, [](SystemCall& call) { return call.name == "unlink" ? EACCES : 0; });
        EXPECT_EQ(queue.remove(message).toStdString(),
                  "cannot remove " + tasks + "/00000001.task: the message stays queued");
    }
    EXPECT_EQ(queue.messages().size(), 1);
    EXPECT_EQ(queue.verify(message), QString());
    EXPECT_EQ(queue.remove(message), QString());
}

TEST_F(QueueFaults, CopiesThatAreAtFault)
{
    const QueuedMessage message = queued();
    const QString copy = paths.output.absoluteFilePath(QStringLiteral("00000001/content"));
    QString error;
    writeFile(copy, "longer than before");
    EXPECT_EQ(queue.open(message, &error), nullptr);
    EXPECT_EQ(error,
              QStringLiteral("the queued copy %1 has changed its size; cancel the message and send the file again")
                  .arg(copy));
    EXPECT_EQ(queue.verify(message), error);
    writeFile(copy, "cOntent");
    EXPECT_EQ(queue.verify(message),
              QStringLiteral("the queued copy %1 is damaged; cancel the message and send the file again").arg(copy));
    QFile::remove(copy);
    EXPECT_EQ(queue.open(message, &error), nullptr);
    EXPECT_EQ(error,
              QStringLiteral("the queued copy cannot be read: cannot read %1: No such file or directory").arg(copy));
}
