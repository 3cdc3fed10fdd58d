// Installations of the program itself, over the socket plug-in.
#pragma once

#include "host/installation/names.h"
#include "rig/deadline.h"
#include "tests/host/sessionpair.h"
#include "tests/host/storetools.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QProcess>
#include <gtest/gtest.h>

#include <cstdlib>
#include <unistd.h>

namespace hosttest {

// Paths of local sockets must be short; the tests' roots are not.
inline QString shortDir()
{
    static const QString dir = [] {
        char pattern[] = "/tmp/hXXXXXX";
        return QString::fromLatin1(mkdtemp(pattern));
    }();
    return dir;
}

struct Result
{
    int status = -1;
    QString out;
    QString err;
};

// One installation: <root>/<name>/bin/transport-host with its plug-ins.
class Installation
{
public:
    explicit Installation(const QString& folder, bool withPlugin = true)
        : root(rig::installRoot() + QLatin1Char('/') + folder), socket(shortDir() + QLatin1Char('/') + folder)
    {
        QDir().mkpath(root + QStringLiteral("/bin/channelPlugins"));
        const QString program = QStringLiteral(TRANSPORT_HOST);
        if (link(QFile::encodeName(program).constData(),
                 QFile::encodeName(root + QStringLiteral("/bin/transport-host")).constData()) != 0)
            QFile::copy(program, root + QStringLiteral("/bin/transport-host"));
        if (withPlugin)
            QFile::link(QStringLiteral(TEST_PLUGINS_DIR "/libsocketplugin.so"),
                        root + QStringLiteral("/bin/channelPlugins/libsocketplugin.so"));
    }

    ~Installation()
    {
        if (process && process->state() != QProcess::NotRunning) {
            process->kill();
            process->waitForFinished();
        }
        QFile::remove(socket);
        QDir().rmdir(shortDir());
    }

    void setUp(const QString& name)
    {
        EXPECT_EQ(call({QStringLiteral("name"), name}).status, 0);
        EXPECT_EQ(call({QStringLiteral("port"), QStringLiteral("add"), socket}).status, 0);
    }
    void knows(const QString& name, const Installation& other)
    {
        const QString key = other.call({QStringLiteral("key"), QStringLiteral("--text")}).out.trimmed();
        const Result result = call({QStringLiteral("abonent"), QStringLiteral("add"), name, QStringLiteral("--number"),
                                    other.socket, QStringLiteral("--key"), key});
        EXPECT_EQ(result.status, 0) << qPrintable(result.err);
    }

    Result call(QStringList arguments) const
    {
        if (arguments.value(0) == QLatin1String("run") && !rig::isRootPrivate())
            arguments.insert(1, QStringLiteral("--allow-shared"));
        QProcess child;
        child.start(program(), arguments);
        child.waitForFinished(60000);
        return {child.exitStatus() == QProcess::NormalExit ? child.exitCode() : -1,
                QString::fromUtf8(child.readAllStandardOutput()), QString::fromUtf8(child.readAllStandardError())};
    }

    void run(const QStringList& options = {}, const QStringList& environment = {})
    {
        process = std::make_unique<QProcess>();
        process->setStandardOutputFile(root + QStringLiteral("/out.txt"), QIODevice::Append);
        process->setStandardErrorFile(root + QStringLiteral("/err.txt"), QIODevice::Append);
        process->setEnvironment(QProcess::systemEnvironment() + environment);
        process->start(program(),
                       QStringList{QStringLiteral("run"), QStringLiteral("--retry-seconds"), QStringLiteral("0.05"),
                                   QStringLiteral("--events"), root + QStringLiteral("/events.txt")} +
                           (rig::isRootPrivate() ? QStringList() : QStringList{QStringLiteral("--allow-shared")}) +
                           options);
        EXPECT_TRUE(process->waitForStarted());
    }

    int waitForEnd()
    {
        EXPECT_TRUE(process->waitForFinished(60000)) << output().constData();
        return process->exitStatus() == QProcess::NormalExit ? process->exitCode() : -1;
    }
    QByteArray output() const
    {
        return readAll(root + QStringLiteral("/out.txt")) + readAll(root + QStringLiteral("/err.txt"));
    }

    QJsonObject status() const
    {
        return QJsonDocument::fromJson(call({QStringLiteral("status"), QStringLiteral("--json")}).out.toUtf8())
            .object();
    }
    QJsonArray inbox() const { return status()[QStringLiteral("inbox")].toArray(); }
    QJsonArray queue() const { return status()[QStringLiteral("queue")].toArray(); }
    QList<QJsonObject> events(const QString& kind) const
    {
        QList<QJsonObject> found;
        for (const QByteArray& line : readAll(root + QStringLiteral("/events.txt")).split('\n')) {
            const QJsonObject event = QJsonDocument::fromJson(line).object();
            if (event[QStringLiteral("event")].toString() == kind)
                found.append(event);
        }
        return found;
    }
    QString program() const { return root + QStringLiteral("/bin/transport-host"); }

    const QString root;
    const QString socket;
    std::unique_ptr<QProcess> process;
};

class Program : public testing::Test
{
protected:
    Program() { host::useUtf8Names(); }

    QString file(const QString& name, const QByteArray& content) const
    {
        return writeFile(rig::installRoot() + QStringLiteral("/files/") + name, content);
    }
};

// Two installations that know each other.
class TwoPrograms : public Program
{
protected:
    TwoPrograms() : alice(QStringLiteral("alice")), bob(QStringLiteral("bob"))
    {
        alice.setUp(QStringLiteral("Alice"));
        bob.setUp(QStringLiteral("Боб"));
        alice.knows(QStringLiteral("Боб"), bob);
        bob.knows(QStringLiteral("Alice"), alice);
    }

    Installation alice;
    Installation bob;
};

} // namespace hosttest
