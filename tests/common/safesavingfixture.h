// The files of a directory of the test's own, one of which is saved to; what the log says of it.
#pragma once

#include "common/global.h"
#include "rig/testroot.h"
#include "tests/common/logsupport.h"
#include "tests/common/printing.h"
#include "tests/support/systemcalls.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

namespace logtest {

inline QString u(const char* text)
{
    return QString::fromUtf8(text);
}

// The texts logged so far under the label "Global", the label checked.
inline QStringList globalLog()
{
    const QString label = QStringLiteral("Global").rightJustified(25) + QStringLiteral("    ");
    QStringList texts;
    for (const QString& line : logLines()) {
        EXPECT_EQ(line.mid(13, label.length()), label);
        texts.append(line.mid(13 + label.length()));
    }
    return texts;
}

inline QByteArray patternOf(char first, int size)
{
    QByteArray bytes(size, '\0');
    for (int i = 0; i < size; ++i)
        bytes[i] = char(first + i % 7);
    return bytes;
}

// The files of a directory of the test's own, with "target" in it as what is saved to.
class SafeSaving : public testing::Test
{
protected:
    SafeSaving()
    {
        umask(077); // the permissions seen are those that were set
        beginEmptyLog();
        QDir().mkpath(directory);
    }

    QString pathOf(const QString& name) const { return directory + QLatin1Char('/') + name; }
    void put(const QString& name, const QByteArray& content) { ASSERT_TRUE(writeFile(pathOf(name), content)); }
    QByteArray content(const QString& name) const { return contentOf(pathOf(name)); }
    QStringList names() const
    {
        return QDir(directory).entryList(QDir::AllEntries | QDir::Hidden | QDir::System | QDir::NoDotAndDotDot,
                                         QDir::Name);
    }
    // In the way of a file: a directory that unlink() and rmdir() refuse.
    void putFullDirectory(const QString& name) { put(name + u("/inside"), "x"); }
    QString save(const QByteArray& data) { return Global::safeSaving(target, data); }

    const QString directory = rootPath(u("files"));
    const QString target = pathOf(u("target"));
    const QString side = pathOf(u("target.new"));
    const QString backup = pathOf(u("target.old"));
    const QStringList onlyTarget{u("target")};
};

// Fails the calls of this name on this file with error; times < 0: always.
inline testsupport::Judge failing(const char* name, const QString& path, int error, int times = -1)
{
    return [name, file = path.toStdString(), error, left = times](testsupport::SystemCall& call) mutable {
        if (!call.is(name, file) || left == 0)
            return 0;
        --left;
        return error;
    };
}

} // namespace logtest
