// No file has grown beyond one subject: its lines are counted.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QStringList>
#include <gtest/gtest.h>

namespace {

constexpr int mostLines = 600;

// Every file that people write, whole paths; what is built lies in build/.
QStringList sources()
{
    QStringList found;
    const QDir root(QStringLiteral(SOURCE_DIR));
    for (const QString& folder : root.entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        if (folder == QLatin1String("build"))
            continue;
        QDirIterator it(root.filePath(folder), {"*.cpp", "*.h", "*.py", "*.sh"}, QDir::Files,
                        QDirIterator::Subdirectories);
        while (it.hasNext())
            found.append(it.next());
    }
    for (const QString& script : QDir(root.filePath(QStringLiteral("scripts"))).entryList(QDir::Files))
        found.append(root.filePath(QStringLiteral("scripts/") + script));
    return found;
}

int linesOf(const QByteArray& content)
{
    return content.count('\n') + (content.isEmpty() || content.endsWith('\n') ? 0 : 1);
}

} // namespace

TEST(Sizes, LinesAreCounted)
{
    EXPECT_EQ(linesOf(""), 0);
    EXPECT_EQ(linesOf("one"), 1);
    EXPECT_EQ(linesOf("one\n"), 1);
    EXPECT_EQ(linesOf("one\n\nthree"), 3);
}

TEST(Sizes, NoSourceIsLongerThanSixHundredLines)
{
    int seen = 0;
    for (const QString& path : sources()) {
        QFile file(path);
        ASSERT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
        ++seen;
        const int lines = linesOf(file.readAll());
        EXPECT_LE(lines, mostLines) << path.toStdString() << ": split it by what it is about";
    }
    EXPECT_GT(seen, 300) << "the tree was not found";
}
