// Directories held open, and files in them: what is done, and what is told of what cannot be.
#include "host/installation/opendirectory.h"
#include "tests/host/storetools.h"
#include "tests/support/opendescriptors.h"
#include "tests/support/systemcalls.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <sys/stat.h>
#include <unistd.h>

using namespace host;
using namespace hosttest;
using testsupport::SystemCall;
using testsupport::SystemCallWatch;

namespace {

class OpenDirectoryTest : public testing::Test
{
protected:
    OpenDirectoryTest()
    {
        useUtf8Names();
        QDir().mkpath(root);
        directory = OpenDirectory::at(root, &error);
        EXPECT_TRUE(directory.isOpen()) << qPrintable(error);
    }

    QString pathOf(const char* name) const { return root + QLatin1Char('/') + QString::fromUtf8(name); }
    void link(const char* to, const char* name) const
    {
        ASSERT_EQ(::symlink(QFile::encodeName(pathOf(to)).constData(), QFile::encodeName(pathOf(name)).constData()), 0);
    }
    static std::string text(const QString& told) { return told.toStdString(); }

    const QString root = rig::installRoot() + QStringLiteral("/d");
    const std::string at = root.toStdString();
    QString error;
    OpenDirectory directory;
    QFile file;
};

} // namespace

TEST_F(OpenDirectoryTest, WhatIsNoDirectoryIsNotOpened)
{
    writeFile(pathOf("file"), "x");
    writeFile(pathOf("sub/x"), "x");
    link("sub", "link");
    EXPECT_FALSE(OpenDirectory().isOpen());
    for (const bool isBelow : {false, true}) {
        const auto open = [&](const char* name) {
            error = QStringLiteral("before");
            const OpenDirectory opened =
                isBelow ? directory.below(QString::fromLatin1(name), &error) : OpenDirectory::at(pathOf(name), &error);
            return opened.isOpen();
        };
        EXPECT_FALSE(open("absent"));
        EXPECT_EQ(text(error), "cannot use the directory " + at + "/absent: No such file or directory");
        EXPECT_FALSE(open("file"));
        EXPECT_EQ(text(error), "cannot use the directory " + at + "/file: Not a directory");
        EXPECT_FALSE(open("link"));
        EXPECT_EQ(text(error), at + "/link is a link, and links are not followed here: remove it");
        EXPECT_TRUE(open("sub"));
    }
}

TEST_F(OpenDirectoryTest, FilesAreMadeReadAndWritten)
{
    ASSERT_EQ(text(directory.createFile(QStringLiteral("f"), &file)), "");
    EXPECT_EQ(file.write("content"), 7);
    file.close();
    ASSERT_EQ(text(directory.openForReading(QStringLiteral("f"), &file)), "");
    EXPECT_EQ(file.readAll(), QByteArray("content"));
    EXPECT_EQ(file.write("x"), -1) << "for reading";
    file.close();
    ASSERT_EQ(text(directory.openForWriting(QStringLiteral("f"), &file)), "");
    EXPECT_EQ(file.write("C"), 1);
    EXPECT_EQ(readAll(pathOf("f")), QByteArray("Content")) << "at once, and not cut off";
}

TEST_F(OpenDirectoryTest, FilesThatCannotBeUsedAreTold)
{
    writeFile(pathOf("f"), "x");
    link("f", "link");
    ASSERT_EQ(::mkfifo(QFile::encodeName(pathOf("pipe")).constData(), 0600), 0);
    ASSERT_EQ(::link(QFile::encodeName(pathOf("f")).constData(), QFile::encodeName(pathOf("g")).constData()), 0);
    const int before = testsupport::openDescriptors();
    EXPECT_EQ(text(directory.createFile(QStringLiteral("f"), &file)), "cannot write " + at + "/f: File exists");
    EXPECT_EQ(text(directory.openForReading(QStringLiteral("absent"), &file)),
              "cannot read " + at + "/absent: No such file or directory");
    EXPECT_EQ(text(directory.openForWriting(QStringLiteral("absent"), &file)),
              "cannot write " + at + "/absent: No such file or directory");
    EXPECT_EQ(text(directory.openForReading(QStringLiteral("link"), &file)),
              at + "/link is a link, and links are not followed here: remove it");
    EXPECT_EQ(text(directory.openForReading(QStringLiteral("pipe"), &file)),
              "cannot read " + at + "/pipe: it is not a regular file");
    EXPECT_EQ(text(directory.openForWriting(QStringLiteral("g"), &file)),
              "cannot write " + at + "/g: it has another name elsewhere");
    EXPECT_FALSE(file.isOpen());
    EXPECT_EQ(testsupport::openDescriptors(), before);
    EXPECT_EQ(text(directory.openForReading(QStringLiteral("g"), &file)), "") << "reading does it no harm";
}

// A name is a peer's choice.
TEST_F(OpenDirectoryTest, ANameWithAMarkerIsToldAsItIs)
{
    EXPECT_EQ(text(directory.openForReading(QStringLiteral("a%2b%1"), &file)),
              "cannot read " + at + "/a%2b%1: No such file or directory");
}

TEST_F(OpenDirectoryTest, DirectoriesAreMadeMovedAndRemoved)
{
    ::umask(0);
    EXPECT_EQ(text(directory.makeDirectory(QStringLiteral("a"))), "");
    EXPECT_EQ(text(directory.makeDirectory(QStringLiteral("a"))), "cannot create " + at + "/a: File exists");
    writeFile(pathOf("a/x"), "x");
    writeFile(pathOf("b/y"), "y");
    EXPECT_EQ(text(directory.moveDirectory(QStringLiteral("a"), directory, QStringLiteral("b"))),
              "cannot move " + at + "/a to " + at + "/b: Directory not empty");
    EXPECT_EQ(text(directory.moveDirectory(QStringLiteral("a"), directory, QStringLiteral("c"))), "");
    EXPECT_EQ(readAll(pathOf("c/x")), QByteArray("x"));
    EXPECT_EQ(text(directory.removeTree(QStringLiteral("c"))), "");
    EXPECT_FALSE(QFile::exists(pathOf("c")));
    EXPECT_EQ(text(directory.removeTree(QStringLiteral("c"))), "") << "what is not there is removed";
    link("b", "link");
    EXPECT_EQ(text(directory.removeTree(QStringLiteral("link"))), "");
    EXPECT_EQ(readAll(pathOf("b/y")), QByteArray("y"));
}

TEST_F(OpenDirectoryTest, WhatCannotBeRemovedIsTold)
{
    writeFile(pathOf("a/x"), "x");
    const SystemCallWatch watch(at, [](SystemCall& call) { return call.is("unlink", call.path) ? EACCES : 0; });
    EXPECT_EQ(text(directory.removeTree(QStringLiteral("a"))), "cannot remove " + at + "/a: Permission denied");
    EXPECT_TRUE(QFile::exists(pathOf("a/x")));
}

// A file system that cannot sync keeps the names as well as it can.
TEST_F(OpenDirectoryTest, NamesAreSyncedAsWellAsTheFileSystemCan)
{
    for (const int number : {0, EINVAL, ENOTSUP, EIO}) {
        const SystemCallWatch watch(at, [number](SystemCall& call) { return call.name == "fsync" ? number : 0; });
        EXPECT_EQ(text(directory.sync()), number == EIO ? "cannot write " + at + ": Input/output error" : "") << number;
        EXPECT_EQ(watch.callsOf({"fsync"}), std::vector<std::string>{"fsync "});
    }
}

TEST_F(OpenDirectoryTest, IsHeldByOneObject)
{
    const int before = testsupport::openDescriptors();
    {
        OpenDirectory first = OpenDirectory::at(root, &error);
        OpenDirectory second = std::move(first);
        EXPECT_FALSE(first.isOpen()); // NOLINT(bugprone-use-after-move): that is the question
        EXPECT_TRUE(second.isOpen());
        EXPECT_EQ(testsupport::openDescriptors(), before + 1);
        second = OpenDirectory::at(root, &error);
        EXPECT_TRUE(second.isOpen());
        EXPECT_EQ(testsupport::openDescriptors(), before + 1);
    }
    EXPECT_EQ(testsupport::openDescriptors(), before);
}

// It is held: whoever puts another one in its place does not lead us there.
TEST_F(OpenDirectoryTest, StaysWhatItWasWhenItsNameLeadsElsewhere)
{
    writeFile(rig::installRoot() + QStringLiteral("/elsewhere/x"), "x");
    ASSERT_TRUE(QDir().rename(root, root + QStringLiteral("-moved")));
    ASSERT_TRUE(QFile::link(rig::installRoot() + QStringLiteral("/elsewhere"), root));
    EXPECT_NE(text(directory.openForReading(QStringLiteral("x"), &file)), "");
    ASSERT_EQ(text(directory.createFile(QStringLiteral("mine"), &file)), "");
    file.close();
    EXPECT_TRUE(QFile::exists(root + QStringLiteral("-moved/mine")));
    EXPECT_FALSE(QFile::exists(rig::installRoot() + QStringLiteral("/elsewhere/mine")));
}

// Each step holds a descriptor: a tree of any depth would take them all.
TEST_F(OpenDirectoryTest, RemovesTreesOfSixteenStepsAndNoDeeperOnes)
{
    QString deep = QStringLiteral("0");
    for (int depth = 1; depth < 16; ++depth)
        deep += QStringLiteral("/%1").arg(depth);
    writeFile(root + QLatin1Char('/') + deep + QStringLiteral("/file"), "x");
    EXPECT_EQ(text(directory.removeTree(QStringLiteral("0"))), "");
    EXPECT_FALSE(QFile::exists(pathOf("0")));
    QDir().mkpath(root + QLatin1Char('/') + deep + QStringLiteral("/16"));
    EXPECT_EQ(text(directory.removeTree(QStringLiteral("0"))),
              "cannot remove " + at + "/0: Too many levels of symbolic links");
    EXPECT_TRUE(QFile::exists(pathOf("0")));
}
