// The program's live picture on a terminal.
#include "tests/host/programs.h"

#include <QRegularExpression>
#include <gtest/gtest.h>

#include <cstdlib>
#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

using namespace hosttest;
using rig::waitFor;

// A terminal that does not know its width says 0 columns.
TEST_F(TwoPrograms, TheLivePictureFitsTheTerminal)
{
    struct Case
    {
        unsigned short columns;
        int least; // of the widest line: the title alone would take more than 60
        int widest;
    };
    for (const Case& terminal : {Case{0, 60, 99}, Case{60, 59, 59}, Case{10, 39, 39}}) {
        const int master = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC | O_NONBLOCK);
        ASSERT_GE(master, 0);
        ASSERT_EQ(grantpt(master), 0);
        ASSERT_EQ(unlockpt(master), 0);
        char slave[64];
        ASSERT_EQ(ptsname_r(master, slave, sizeof slave), 0);
        winsize size{};
        size.ws_col = terminal.columns;
        ASSERT_EQ(ioctl(master, TIOCSWINSZ, &size), 0);
        QProcess host;
        host.setStandardOutputFile(QString::fromLatin1(slave));
        host.start(alice.program(), {QStringLiteral("run")});
        QByteArray shown;
        ASSERT_TRUE(waitFor([&] {
            char bytes[4096];
            const ssize_t count = ::read(master, bytes, sizeof bytes);
            if (count > 0)
                shown.append(bytes, static_cast<int>(count));
            return shown.count("\x1B[J") >= 3 && shown.contains("Alice");
        })) << shown.constData();
        host.terminate();
        EXPECT_TRUE(host.waitForFinished(60000));
        EXPECT_EQ(host.exitCode(), 0);
        close(master);
        EXPECT_TRUE(QRegularExpression(QStringLiteral("\x1B\\[[0-9]+A")).match(QString::fromUtf8(shown)).hasMatch())
            << "the cursor goes back up";
        int widest = 0;
        for (QByteArray line : shown.split('\n')) {
            const int command = line.lastIndexOf("\x1B[K");
            if (command < 0)
                continue;
            line.truncate(command);
            QString text = QString::fromUtf8(line);
            text.remove(QRegularExpression(QStringLiteral("\x1B\\[[0-9]*[AJK]")));
            text.remove(QLatin1Char('\r'));
            widest = qMax(widest, text.size());
            EXPECT_FALSE(text.contains(QLatin1Char('\x1B'))) << qPrintable(text);
        }
        EXPECT_GE(widest, terminal.least);
        EXPECT_LE(widest, terminal.widest);
    }
}
