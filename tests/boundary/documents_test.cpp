// What the documents say is held by a test is held by one that exists.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

QString textOf(const QString& path)
{
    QFile file(path);
    EXPECT_TRUE(file.open(QIODevice::ReadOnly)) << path.toStdString();
    return QString::fromUtf8(file.readAll());
}

QString source(const QString& path)
{
    return QStringLiteral(SOURCE_DIR "/") + path;
}

QStringList filesBelow(const QString& folder, const QStringList& patterns)
{
    QStringList files;
    QDirIterator it(source(folder), patterns, QDir::Files, QDirIterator::Subdirectories);
    while (it.hasNext())
        files.append(it.next());
    return files;
}

QStringList captures(const QString& text, const char* pattern)
{
    QStringList found;
    QRegularExpressionMatchIterator it =
        QRegularExpression(QLatin1String(pattern), QRegularExpression::MultilineOption).globalMatch(text);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        found.append(match.captured(1) +
                     (match.lastCapturedIndex() > 1 ? QLatin1Char('.') + match.captured(2) : QString()));
    }
    return found;
}

// As ctest shows them, but for the values of parameters.
const QStringList& testNames()
{
    static const QStringList names = [] {
        QStringList all;
        for (const QString& file : filesBelow(QStringLiteral("tests"), {"*.cpp", "*.h"})) {
            const QString text = textOf(file);
            all += captures(text, "^TEST(?:_F)?\\(\\s*(\\w+)\\s*,\\s*(\\w+)\\s*\\)");
            const QStringList prefixes = captures(text, "^INSTANTIATE_TEST_SUITE_P\\(\\s*(\\w+)\\s*,\\s*(\\w+)\\s*,");
            for (const QString& name : captures(text, "^TEST_P\\(\\s*(\\w+)\\s*,\\s*(\\w+)\\s*\\)")) {
                for (const QString& prefix : prefixes) {
                    if (prefix.section(QLatin1Char('.'), 1) == name.section(QLatin1Char('.'), 0, 0))
                        all.append(prefix.section(QLatin1Char('.'), 0, 0) + QLatin1Char('/') + name);
                }
            }
        }
        return all;
    }();
    return names;
}

QStringList fuzzTargets()
{
    return QDir(source(QStringLiteral("fuzz"))).entryList({"*.cpp", "*.txt"}, QDir::Files) +
           captures(textOf(source(QStringLiteral("fuzz/CMakeLists.txt"))), "\\b([a-z_]+)\\b");
}

QString allSoakSources()
{
    QString text;
    for (const QString& file : filesBelow(QStringLiteral("tests/soak"), {"*.cpp", "*.h"}))
        text += textOf(file);
    return text;
}

// Whether something of that name exists; words: what stands before it in its cell.
bool isHeld(const QString& name, const QString& words)
{
    static const QRegularExpression afterFuzz(QStringLiteral("fuzz (`\\w+`, )*$"));
    const bool isTarget = words.contains(afterFuzz) && fuzzTargets().contains(name);
    if (isTarget || words.trimmed().endsWith(QLatin1String("fuzz")))
        return isTarget;
    if (words.contains(QLatin1String("soak kind")) &&
        allSoakSources().contains(QLatin1Char('"') + name + QLatin1Char('"')))
        return true;
    if (name.startsWith(QLatin1String("scripts/")))
        return QFile::exists(source(name));
    const QRegularExpression pattern(name);
    return pattern.isValid() && !testNames().filter(pattern).isEmpty();
}

// The names in one cell that nothing bears; "nothing" where it has none at all.
QStringList unheld(const QString& cell)
{
    QStringList missing;
    static const QRegularExpression code(QStringLiteral("`([^`]+)`"));
    QRegularExpressionMatchIterator it = code.globalMatch(cell);
    while (it.hasNext()) {
        const QRegularExpressionMatch match = it.next();
        if (!isHeld(match.captured(1), cell.left(match.capturedStart())))
            missing.append(match.captured(1));
    }
    if (cell.trimmed().isEmpty())
        missing.append(QStringLiteral("nothing"));
    return missing;
}

struct Row
{
    QString text;
    QString heldBy;
};

// The rows of those tables whose last column is "held by".
QList<Row> heldRows(const QString& document)
{
    QList<Row> rows;
    bool isInside = false;
    for (const QString& line : document.split(QLatin1Char('\n'))) {
        if (!line.startsWith(QLatin1Char('|'))) {
            isInside = false;
            continue;
        }
        const QString last = line.section(QLatin1Char('|'), -2, -2);
        if (last.trimmed() == QLatin1String("held by"))
            isInside = true;
        else if (isInside && !line.startsWith(QLatin1String("|--")))
            rows.append({line, last});
    }
    return rows;
}

} // namespace

TEST(Documents, EachTestThatATableNamesExists)
{
    for (const char* name : {"docs/reliability.md", "docs/security.md"}) {
        const QList<Row> rows = heldRows(textOf(source(QString::fromLatin1(name))));
        EXPECT_GT(rows.size(), 4) << name;
        for (const Row& row : rows)
            EXPECT_EQ(unheld(row.heldBy), QStringList()) << name << ": " << row.text.toStdString();
    }
}

TEST(Documents, EachTestThatACommandNamesExists)
{
    int seen = 0;
    for (const QString& file :
         filesBelow(QStringLiteral("docs"), {"*.md"}) + QStringList{source(QStringLiteral("README.md"))}) {
        for (const QString& name : captures(textOf(file), "scripts/test [^\\n`]*-R '?([\\w.|/*]+)")) {
            if (name == QLatin1String("NAME"))
                continue;
            ++seen;
            EXPECT_TRUE(isHeld(name, QString())) << file.toStdString() << ": " << name.toStdString();
        }
    }
    EXPECT_GT(seen, 1);
}

TEST(Documents, ANameThatNothingBearsIsSeen)
{
    EXPECT_GT(testNames().size(), 500);
    EXPECT_EQ(unheld(QStringLiteral(
                  " `Documents`, `NoSuchTest.AtAll`, fuzz `packet`, fuzz `nosuchtarget`, `scripts/nothing` ")),
              (QStringList{QStringLiteral("NoSuchTest.AtAll"), QStringLiteral("nosuchtarget"),
                           QStringLiteral("scripts/nothing")}));
    EXPECT_EQ(unheld(QStringLiteral(" soak kinds `session`, `no-such-kind` ")),
              QStringList{QStringLiteral("no-such-kind")});
    EXPECT_EQ(unheld(QStringLiteral("  ")), QStringList{QStringLiteral("nothing")});
    EXPECT_EQ(heldRows(QStringLiteral("| a | held by |\n|---|---|\n| b | c |\n\n| d | e |\n")).size(), 1);
}
