// The program phone-exchange as a process of a test, in a directory of its own.
#pragma once

#include "rig/deadline.h"
#include "rig/testroot.h"

#include <QFile>
#include <QProcess>
#include <gtest/gtest.h>

namespace testsupport {

class PhoneExchangeTest : public testing::Test
{
protected:
    void run(const QStringList& arguments)
    {
        process.setWorkingDirectory(rig::installRoot());
        process.start(QStringLiteral(PHONE_EXCHANGE), arguments);
    }

    // Runs it to its end; the exit status, or -1.
    int runToEnd(const QStringList& arguments)
    {
        run(arguments);
        process.closeWriteChannel();
        if (!ended())
            return -1;
        output += process.readAllStandardOutput();
        return process.exitCode();
    }

    // Runs it until it is ready.
    void runReady(QStringList arguments)
    {
        arguments << QStringLiteral("--ready-file") << path("ready") << QStringLiteral("--link-dir") << path("ports");
        run(arguments);
        // Ready may be seen before the news that it has started.
        ASSERT_TRUE(rig::waitFor([&] {
            return (QFile::exists(path("ready")) && process.state() != QProcess::Starting) ||
                   process.state() == QProcess::NotRunning;
        }));
        ASSERT_EQ(process.state(), QProcess::Running) << process.readAllStandardError().toStdString();
    }

    bool ended()
    {
        return rig::waitFor([&] { return process.state() == QProcess::NotRunning; }) &&
               process.exitStatus() == QProcess::NormalExit;
    }

    bool expectOutput(const QByteArray& text)
    {
        return rig::waitFor([&] {
            output += process.readAllStandardOutput();
            return output.contains(text);
        });
    }

    bool command(const QByteArray& line, const QByteArray& answer)
    {
        output.clear();
        process.write(line + '\n');
        return expectOutput(answer);
    }

    QByteArray errors() { return process.readAllStandardError(); }

    static QString path(const char* name) { return rig::installRoot() + QLatin1Char('/') + QLatin1String(name); }

    static QByteArray fileText(const QString& name)
    {
        QFile file(name);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
    }

    void TearDown() override
    {
        if (process.state() != QProcess::NotRunning) {
            process.kill();
            process.waitForFinished();
        }
    }

    QProcess process;
    QByteArray output;
};

} // namespace testsupport
