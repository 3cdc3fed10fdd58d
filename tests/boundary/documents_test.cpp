// What the documents say is held by a test is held by one that exists.
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QRegularExpression>
#include <QSet>
#include <gtest/gtest.h>

#include <algorithm>

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

QStringList documents()
{
    return filesBelow(QStringLiteral("docs"), {"*.md"}) +
           QStringList{source(QStringLiteral("README.md")), source(QStringLiteral("CONTRIBUTING.md"))};
}

// Whether a name in the manner of this tree leads to something: a file or folder, one file of
// that unit, or the name of a program's or script's output folder.
bool leadsSomewhere(const QString& path)
{
    if (path.startsWith(QLatin1String("build/")))
        return true;
    for (const char* end : {"", ".h", ".cpp"}) {
        if (QFileInfo::exists(source(path + QLatin1String(end))))
            return true;
    }
    return false;
}

// What looks like a path from the root of the tree and leads nowhere.
QStringList pathsToNowhere(const QString& document)
{
    QStringList missing;
    for (const QString& path : captures(document, "`(\\.?\\w[\\w.-]*/[\\w./-]*)`")) {
        if (!leadsSomewhere(path))
            missing.append(path);
    }
    return missing;
}

struct Word
{
    QString word;
    QStringList names; // in the code
};

// The glossary: word, meaning, names in the code.
QList<Word> glossary(const QString& document)
{
    QList<Word> words;
    static const QRegularExpression row(QStringLiteral("^\\| \\*\\*(\\w+)\\*\\* \\|.*\\|([^|]*)\\|$"),
                                        QRegularExpression::MultilineOption);
    QRegularExpressionMatchIterator rows = row.globalMatch(document);
    while (rows.hasNext()) {
        const QRegularExpressionMatch match = rows.next();
        words.append({match.captured(1), captures(match.captured(2), "`(\\w+)`")});
    }
    return words;
}

QSet<QString> namesInRooms()
{
    QString text;
    for (const char* room : {"common", "plugin", "com", "sim", "host"}) {
        for (const QString& file : filesBelow(QString::fromLatin1(room), {"*.h"}))
            text += textOf(file);
    }
    const QStringList names = captures(text, "\\b([A-Za-z_]\\w*)\\b");
    return {names.begin(), names.end()};
}

// The script itself, and what it hands its options on to.
QString textOfScript(const QString& name)
{
    QString text = textOf(source(QStringLiteral("scripts/") + name));
    for (const QString& file : filesBelow(QStringLiteral("scripts/lib"), {"*.py"})) {
        const QString path = file.section(QLatin1String("scripts/lib/"), 1);
        if (path == name + QLatin1String(".py") || path.startsWith(name + QLatin1Char('/')))
            text += textOf(file);
    }
    return text;
}

bool knowsOption(const QString& script, const QString& option)
{
    return textOfScript(script).contains(
        QRegularExpression(QRegularExpression::escape(option) + QStringLiteral("(?![\\w-])")));
}

// "script --option" of those commands whose script or option there is not. Behind a bare "--"
// stand options of another program.
QStringList unknownOptions(const QString& document)
{
    QStringList unknown;
    static const QRegularExpression command(QStringLiteral("\\bscripts/(\\w+)(?![\\w/.-])([^\\n`#]*)"));
    static const QRegularExpression option(QStringLiteral("(?<=\\s)--?[a-z][a-z-]*"));
    QRegularExpressionMatchIterator commands = command.globalMatch(document);
    while (commands.hasNext()) {
        const QRegularExpressionMatch match = commands.next();
        const QString script = match.captured(1);
        const bool isScript = QFileInfo(source(QStringLiteral("scripts/") + script)).isFile();
        if (!isScript)
            unknown.append(script);
        const QString words = match.captured(2).section(QLatin1String(" -- "), 0, 0);
        QRegularExpressionMatchIterator options = option.globalMatch(words);
        while (isScript && options.hasNext()) {
            const QString name = options.next().captured();
            if (!knowsOption(script, name))
                unknown.append(script + QLatin1Char(' ') + name);
        }
    }
    return unknown;
}

QStringList unknownPresets(const QString& document)
{
    const QString presets = textOf(source(QStringLiteral("CMakePresets.json")));
    QStringList unknown = captures(document, "--preset (\\w+)");
    unknown.erase(std::remove_if(unknown.begin(), unknown.end(),
                                 [&presets](const QString& name) {
                                     return presets.contains(QStringLiteral("\"name\": \"%1\"").arg(name));
                                 }),
                  unknown.end());
    return unknown;
}

// Links of one document to files that are not there.
QStringList brokenLinks(const QString& file)
{
    QStringList broken;
    for (const QString& target : captures(textOf(file), "\\]\\(([^)#:\\s]+)(?:#[^)]*)?\\)")) {
        if (!QFileInfo::exists(QFileInfo(file).dir().filePath(target)))
            broken.append(target);
    }
    return broken;
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
    for (const QString& file : documents()) {
        for (const QString& name : captures(textOf(file), "scripts/test [^\\n`]*-R '?([\\w.|/*]+)")) {
            if (name.compare(QLatin1String("name"), Qt::CaseInsensitive) == 0)
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

TEST(Documents, EachPathLeadsSomewhere)
{
    EXPECT_GT(captures(textOf(source(QStringLiteral("CONTRIBUTING.md"))), "`(\\.?\\w[\\w.-]*/[\\w./-]*)`").size(), 40);
    EXPECT_EQ(pathsToNowhere(textOf(source(QStringLiteral("CONTRIBUTING.md")))), QStringList());
    for (const QString& file : documents())
        EXPECT_EQ(brokenLinks(file), QStringList()) << file.toStdString();
}

TEST(Documents, EachNameInTheGlossaryIsInTheCode)
{
    const QList<Word> words = glossary(textOf(source(QStringLiteral("docs/architecture.md"))));
    EXPECT_GT(words.size(), 12);
    const QSet<QString> known = namesInRooms();
    EXPECT_FALSE(known.contains(QStringLiteral("NoSuchNameAtAll")));
    QSet<QString> seen;
    for (const Word& word : words) {
        EXPECT_FALSE(seen.contains(word.word)) << word.word.toStdString();
        seen.insert(word.word);
        EXPECT_FALSE(word.names.isEmpty()) << word.word.toStdString();
        for (const QString& name : word.names)
            EXPECT_TRUE(known.contains(name)) << word.word.toStdString() << ": " << name.toStdString();
    }
}

TEST(Documents, EachScriptOptionAndPresetExists)
{
    for (const QString& file : documents()) {
        const QString document = textOf(file);
        EXPECT_EQ(unknownOptions(document), QStringList()) << file.toStdString();
        EXPECT_EQ(unknownPresets(document), QStringList()) << file.toStdString();
    }
}

TEST(Documents, AWrongPathOrOptionIsSeen)
{
    EXPECT_EQ(pathsToNowhere(
                  QStringLiteral("`com/link/linkrules`, `com/link/`, `.ci/run`, `hots/main.cpp`, `com/link/no.h`")),
              (QStringList{QStringLiteral("hots/main.cpp"), QStringLiteral("com/link/no.h")}));
    EXPECT_EQ(unknownOptions(QStringLiteral("scripts/test --repeat 3 --no-such 1 -- --gtest # --none\n`scripts/none`, "
                                            "`scripts/soak --once a 1 --onc`; --free `scripts/lib/demo.py --x`")),
              (QStringList{QStringLiteral("test --no-such"), QStringLiteral("none"), QStringLiteral("soak --onc")}));
    EXPECT_EQ(unknownOptions(QStringLiteral("scripts/demo --ber 1e-5 --nothing")),
              QStringList{QStringLiteral("demo --nothing")});
    EXPECT_EQ(unknownPresets(QStringLiteral("cmake --preset release, --preset no_such")),
              QStringList{QStringLiteral("no_such")});
}
