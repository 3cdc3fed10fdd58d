// What the built library shows to whoever loads it, and what it asks for.
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <gtest/gtest.h>

namespace {

QString outputOf(const QString& program, const QStringList& arguments)
{
    QProcess process;
    process.start(program, arguments);
    EXPECT_TRUE(process.waitForFinished(60000)) << program.toStdString();
    EXPECT_EQ(process.exitCode(), 0) << process.readAllStandardError().toStdString();
    return QString::fromUtf8(process.readAllStandardOutput());
}

QStringList symbols(const QString& which, const QString& file = QStringLiteral(PLUGIN_FILE))
{
    QStringList names;
    const QString output =
        outputOf(QStringLiteral(NM_PROGRAM), {QStringLiteral("-D"), which, QStringLiteral("--format=posix"), file});
    for (const QString& line : output.split(QLatin1Char('\n'), Qt::SkipEmptyParts))
        names.append(line.section(QLatin1Char(' '), 0, 0).section(QLatin1Char('@'), 0, 0));
    names.sort();
    return names;
}

QStringList goldenList()
{
    QFile file(QStringLiteral(GOLDEN_EXPORTS));
    EXPECT_TRUE(file.open(QIODevice::ReadOnly));
    QStringList names;
    for (const QString& line : QString::fromUtf8(file.readAll()).split(QLatin1Char('\n'), Qt::SkipEmptyParts)) {
        if (!line.startsWith(QLatin1Char('#')))
            names.append(line);
    }
    names.sort();
    return names;
}

} // namespace

TEST(Exports, AreThoseOfTheList)
{
    const QStringList exported = symbols(QStringLiteral("--defined-only"));
    const QStringList expected = goldenList();
    for (const QString& name : exported)
        EXPECT_TRUE(expected.contains(name)) << "shown, but not listed: " << name.toStdString();
    for (const QString& name : expected)
        EXPECT_TRUE(exported.contains(name)) << "listed, but not shown: " << name.toStdString();
    EXPECT_GT(expected.size(), 5);
}

TEST(Exports, EntryPointsAreUnmangled)
{
    const QStringList exported = symbols(QStringLiteral("--defined-only"));
    for (const char* name : {"apiVersion", "instance", "deleteInstance", "initDebug", "gComSettings"})
        EXPECT_TRUE(exported.contains(QLatin1String(name))) << name;
}

// The host reads and writes the same records, and shows its symbols to the plug-in: settings
// of its own under that name would be taken for the plug-in's.
TEST(Exports, TheHostHasNoSettingsOfTheChannel)
{
    const QStringList ofHost = symbols(QStringLiteral("--defined-only"), QStringLiteral(HOST_FILE));
    EXPECT_FALSE(ofHost.contains(QStringLiteral("gComSettings")));
    EXPECT_FALSE(ofHost.isEmpty());
}

TEST(Exports, TheGeneratorIsNeverSeeded)
{
    const QStringList imported = symbols(QStringLiteral("--undefined-only"));
    EXPECT_TRUE(imported.filter(QRegularExpression(QStringLiteral("q?srand"))).isEmpty()) << "seeds the generator";
    // The list is there at all: the plug-in draws from it.
    EXPECT_TRUE(imported.contains(QStringLiteral("_Z5qrandv")));
}

TEST(Exports, SonameAndNeededLibraries)
{
    const QString dynamic = outputOf(QStringLiteral(READELF_PROGRAM),
                                     {QStringLiteral("-d"), QStringLiteral("-W"), QStringLiteral(PLUGIN_FILE)});
    const QRegularExpression soname(QStringLiteral("\\(SONAME\\)[^\\[]*\\[([^\\]]*)\\]"));
    EXPECT_EQ(soname.match(dynamic).captured(1), QStringLiteral("libtransportCom.so.1"));

    // Qt's two libraries, the compiler's and the system's; the sanitizers bring their own.
    const QRegularExpression known(QStringLiteral("^(libQt5Core|libQt5SerialPort|libstdc\\+\\+|libm|libgcc_s|libc|"
                                                  "libpthread|ld-linux-x86-64|libasan|libubsan|libtsan)\\.so"));
    const QRegularExpression needed(QStringLiteral("\\(NEEDED\\)[^\\[]*\\[([^\\]]*)\\]"));
    int found = 0;
    for (auto it = needed.globalMatch(dynamic); it.hasNext(); ++found) {
        const QString library = it.next().captured(1);
        EXPECT_TRUE(known.match(library).hasMatch()) << library.toStdString();
    }
    EXPECT_GE(found, 2);
}
