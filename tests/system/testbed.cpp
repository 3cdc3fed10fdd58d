#include "tests/system/testbed.h"

#include "rig/deadline.h"
#include "rig/randombytes.h"
#include "rig/testroot.h"

#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QJsonArray>
#include <QJsonDocument>
#include <QProcessEnvironment>
#include <gtest/gtest.h>

#include <random>
#include <unistd.h>

namespace testsupport {

namespace {

constexpr int startDeadlineMs = 60000;
constexpr int commandDeadlineMs = 60000;

QString built(const QString& path)
{
    return QStringLiteral(TRANSPORT_BUILD_DIR "/") + path;
}

QString freshDirectory(const QString& name)
{
    static int count = 0;
    const QString path = QStringLiteral("%1/%2-%3").arg(rig::installRoot(), QString::number(++count), name);
    QDir().mkpath(path);
    return path;
}

QByteArray contentOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

// The program finds its installation by the place of its file, so it cannot be a link.
void place(const QString& path, const QString& to)
{
    const QString from = QFileInfo(path).canonicalFilePath();
    if (::link(QFile::encodeName(from).constData(), QFile::encodeName(to).constData()) == 0)
        return;
    if (!QFile::copy(from, to))
        ADD_FAILURE() << "cannot copy " << path.toStdString() << "; is it built?";
}

} // namespace

// --- the exchange -----------------------------------------------------------------------

PhoneExchange::PhoneExchange(int modems, const QStringList& options)
    : m_directory(freshDirectory(QStringLiteral("exchange")))
{
    const QString ready = m_directory + QStringLiteral("/ready");
    m_process.setProcessChannelMode(QProcess::MergedChannels);
    m_process.start(built(QStringLiteral("bin/phone-exchange")),
                    QStringList{QStringLiteral("--modems"), QString::number(modems), QStringLiteral("--link-dir"),
                                m_directory, QStringLiteral("--table"), linesTable(), QStringLiteral("--ready-file"),
                                ready, QStringLiteral("--stats"), m_directory + QStringLiteral("/calls.json"),
                                QStringLiteral("--ring-interval"), QStringLiteral("2"), QStringLiteral("--seed"),
                                QString::number(rig::seed() & 0x7FFFFFFF)} +
                        options);
    if (!rig::waitFor([&] { return QFile::exists(ready) || m_process.state() == QProcess::NotRunning; },
                      startDeadlineMs) ||
        !QFile::exists(ready))
        ADD_FAILURE() << "the exchange did not start: " << output().toStdString();
}

PhoneExchange::~PhoneExchange()
{
    stop();
    if (testing::Test::HasFailure())
        std::printf("--- the exchange\n%s", qPrintable(output()));
}

QString PhoneExchange::port(int modem) const
{
    return QStringLiteral("%1/modem%2").arg(m_directory, QString::number(modem));
}

QString PhoneExchange::linesTable() const
{
    return m_directory + QStringLiteral("/lines");
}

QString PhoneExchange::command(const QString& text)
{
    const int before = output().size();
    m_process.write(text.toUtf8() + '\n');
    QString answer;
    const bool answered = rig::waitFor([&] {
        for (const QString& line : output().mid(before).split(QLatin1Char('\n'))) {
            if (line.startsWith(QLatin1String("ok")) || line.startsWith(QLatin1String("error")))
                answer = line;
        }
        return !answer.isEmpty();
    });
    EXPECT_TRUE(answered) << "no answer to " << text.toStdString();
    return answer;
}

QString PhoneExchange::output()
{
    m_output += QString::fromUtf8(m_process.readAll());
    return m_output;
}

QList<QJsonObject> PhoneExchange::stop()
{
    if (m_process.state() != QProcess::NotRunning) {
        m_process.write("quit\n");
        m_process.closeWriteChannel();
        if (!m_process.waitForFinished(commandDeadlineMs))
            m_process.kill();
        m_process.waitForFinished(-1);
    }
    QList<QJsonObject> calls;
    for (const QJsonValue call : QJsonDocument::fromJson(contentOf(m_directory + QStringLiteral("/calls.json")))
                                     .object()[QStringLiteral("calls")]
                                     .toArray())
        calls.append(call.toObject());
    return calls;
}

// --- an installation --------------------------------------------------------------------

Installation::Installation(const QString& name) : m_name(name), m_root(freshDirectory(QStringLiteral("installation")))
{
    QDir().mkpath(m_root + QStringLiteral("/bin/channelPlugins"));
    place(built(QStringLiteral("bin/transport-host")), m_root + QStringLiteral("/bin/transport-host"));
    place(built(QStringLiteral("bin/channelPlugins/libtransportCom.so.1")),
          m_root + QStringLiteral("/bin/channelPlugins/libtransportCom.so.1"));
    EXPECT_EQ(command({QStringLiteral("name"), name}), 0) << output().toStdString();
}

Installation::~Installation()
{
    if (isRunning())
        stop();
    if (testing::Test::HasFailure())
        std::printf("--- %s\n%s", qPrintable(m_name), qPrintable(runOutput()));
}

int Installation::command(const QStringList& arguments)
{
    QProcess process;
    process.setProcessChannelMode(QProcess::MergedChannels);
    process.start(m_root + QStringLiteral("/bin/transport-host"), arguments);
    const bool ended = process.waitForFinished(commandDeadlineMs);
    m_output = QString::fromUtf8(process.readAll());
    return ended && process.exitStatus() == QProcess::NormalExit ? process.exitCode() : -1;
}

void Installation::addSettings(const QByteArray& lines)
{
    QFile file(m_root + QStringLiteral("/settings/settings.ini"));
    EXPECT_TRUE(file.open(QIODevice::Append) && file.write('\n' + lines) == lines.size() + 1)
        << file.errorString().toStdString();
}

void Installation::addPort(const QString& port)
{
    EXPECT_EQ(command({QStringLiteral("port"), QStringLiteral("add"), port}), 0) << output().toStdString();
}

QString Installation::key() const
{
    QProcess process;
    process.start(m_root + QStringLiteral("/bin/transport-host"), {QStringLiteral("key"), QStringLiteral("--text")});
    EXPECT_TRUE(process.waitForFinished(commandDeadlineMs));
    return QString::fromUtf8(process.readAllStandardOutput()).trimmed();
}

void Installation::addAbonent(const Installation& peer, const QString& number)
{
    EXPECT_EQ(command({QStringLiteral("abonent"), QStringLiteral("add"), peer.name(), QStringLiteral("--number"),
                       number, QStringLiteral("--key"), peer.key()}),
              0)
        << output().toStdString();
}

void Installation::send(const Installation& peer, const QStringList& files)
{
    EXPECT_EQ(command(QStringList{QStringLiteral("send"), peer.name()} + files), 0) << output().toStdString();
}

void Installation::run(const PhoneExchange& exchange, const QStringList& options)
{
    QProcessEnvironment environment = QProcessEnvironment::systemEnvironment();
    environment.insert(QStringLiteral("LD_PRELOAD"), built(QStringLiteral("lib/libptylines.so")));
    environment.insert(QStringLiteral("PTYLINES_TABLE"), exchange.linesTable());
    // The object with the modem lines has to stand before the sanitizer's own definitions,
    // and the search for leaks fails in a program that has it preloaded.
    environment.insert(QStringLiteral("ASAN_OPTIONS"), environment.value(QStringLiteral("ASAN_OPTIONS")) +
                                                           QStringLiteral(":verify_asan_link_order=0:detect_leaks=0"));
    m_process = std::make_unique<QProcess>();
    m_process->setProcessEnvironment(environment);
    m_process->setProcessChannelMode(QProcess::MergedChannels);
    m_process->setStandardOutputFile(m_root + QStringLiteral("/output.txt"), QIODevice::Append);
    m_process->setStandardInputFile(QProcess::nullDevice());
    m_process->start(
        m_root + QStringLiteral("/bin/transport-host"),
        QStringList{QStringLiteral("run"), QStringLiteral("--plain"), QStringLiteral("--retry-seconds"),
                    QStringLiteral("0.03"), QStringLiteral("--events"), m_root + QStringLiteral("/events.json")} +
            (rig::isRootPrivate() ? QStringList() : QStringList{QStringLiteral("--allow-shared")}) + options);
    EXPECT_TRUE(m_process->waitForStarted(startDeadlineMs));
}

int Installation::waitForEnd(int deadlineMs)
{
    if (!rig::waitFor([&] { return !isRunning(); }, deadlineMs) || m_process->exitStatus() != QProcess::NormalExit)
        return -1;
    return m_process->exitCode();
}

void Installation::kill()
{
    m_process->kill();
    m_process->waitForFinished(-1);
}

int Installation::stop()
{
    m_process->terminate();
    const int code = waitForEnd(commandDeadlineMs);
    if (isRunning())
        kill();
    return code;
}

QString Installation::runOutput() const
{
    return QString::fromUtf8(contentOf(m_root + QStringLiteral("/output.txt")));
}

QList<QJsonObject> Installation::events(const QString& kind, const QString& direction) const
{
    QList<QJsonObject> found;
    for (const QByteArray& line : contentOf(m_root + QStringLiteral("/events.json")).split('\n')) {
        const QJsonObject event = QJsonDocument::fromJson(line).object();
        if (event[QStringLiteral("event")].toString() == kind &&
            (direction.isEmpty() || event[QStringLiteral("direction")].toString() == direction))
            found.append(event);
    }
    return found;
}

QStringList Installation::received(const QByteArray& content) const
{
    QStringList names;
    QDirIterator files(m_root + QStringLiteral("/data/0/messages/input"), QDir::Files, QDirIterator::Subdirectories);
    while (files.hasNext()) {
        const QString path = files.next();
        if (contentOf(path) == content)
            names.append(files.fileName());
    }
    return names;
}

int Installation::receivedCount() const
{
    return QDir(m_root + QStringLiteral("/data/0/messages/input")).entryList(QDir::Dirs | QDir::NoDotAndDotDot).size();
}

// --- files ------------------------------------------------------------------------------

QString makeFile(const QString& name, const QByteArray& content)
{
    const QString path = freshDirectory(QStringLiteral("file")) + QLatin1Char('/') + name;
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(content) != content.size())
        ADD_FAILURE() << "cannot write " << path.toStdString();
    return path;
}

QByteArray randomBytes(int size)
{
    static std::mt19937 generator(rig::seed());
    return rig::drawBytes(size, generator);
}

} // namespace testsupport
