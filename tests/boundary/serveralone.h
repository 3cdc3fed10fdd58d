// The server without a single device: its ports are tried again and again.
#pragma once

#include "tests/boundary/serverfixture.h"

#include <QDir>
#include <QFile>

constexpr int unfinishedRetryMs = 20;

class ServerAlone : public ServerTest
{
protected:
    // Ports without a device are tried again at this interval.
    void SetUp() override
    {
        ServerTest::SetUp();
        writeDetails({QStringLiteral("transportComOpenInterval=%1").arg(unfinishedRetryMs)});
    }

    QStringList addedNames() const
    {
        QStringList names;
        for (const QString& entry : log.entriesWith(QStringLiteral("add ")))
            names.append(entry.section(QLatin1Char(' '), 3, 3));
        names.sort();
        return names;
    }

    // Waits until this many ports have registered.
    bool waitForPorts(int count) const
    {
        return rig::waitFor([&] { return log.entriesWith(QStringLiteral("add ")).size() >= count; });
    }

    // A file that is there and cannot be opened.
    void makeSettingsADirectory() const
    {
        QFile::remove(settingsPath());
        ASSERT_TRUE(QDir().mkpath(settingsPath()));
    }

    // The server's own records and state texts.
    QStringList serverEntries() const
    {
        QStringList own;
        for (const QString& entry : log.entries()) {
            if (entry.startsWith(recordOf({})) || entry.startsWith(stateOf({})))
                own.append(entry);
        }
        return own;
    }
};

inline TestPort disabled(const QString& name)
{
    TestPort port{name};
    port.enabled = false;
    return port;
}
