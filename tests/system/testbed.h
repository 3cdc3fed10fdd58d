// Installations of the reference host with the built library in channelPlugins/, and the
// telephone exchange between them, as processes of their own.
#pragma once

#include <QJsonObject>
#include <QList>
#include <QProcess>
#include <QString>
#include <QStringList>

#include <memory>

namespace testsupport {

// The running exchange; its modems have the numbers 101, 102, ...
class PhoneExchange
{
public:
    // options: further options of phone-exchange. Fails the test when it does not start.
    explicit PhoneExchange(int modems, const QStringList& options = {});
    ~PhoneExchange();

    QString port(int modem) const; // 1, 2, ...
    QString linesTable() const;
    static QString number(int modem) { return QString::number(100 + modem); }

    // Gives a command ("drop 1") and waits for its answer; what was answered.
    QString command(const QString& text);

    // What it has printed so far.
    QString output();

    // Ends the exchange; the calls of its statistics.
    QList<QJsonObject> stop();

private:
    QString m_directory;
    QProcess m_process;
    QString m_output;
};

class Installation
{
public:
    // Lays out directory/bin/ with the program and the library.
    explicit Installation(const QString& name);
    ~Installation();

    const QString& name() const { return m_name; }
    QString root() const { return m_root; }

    // Runs a command to its end; its exit code. output(): what it printed.
    int command(const QStringList& arguments);
    QString output() const { return m_output; }

    // Lines for settings.ini, before the first run.
    void addSettings(const QByteArray& lines);
    // By which the others know it.
    QString key() const;

    void addPort(const QString& port);
    // With its key.
    void addAbonent(const Installation& peer, const QString& number);
    void send(const Installation& peer, const QStringList& files);

    // Starts "run" in the background with further options.
    void run(const PhoneExchange& exchange, const QStringList& options = {});
    bool isRunning() const { return m_process && m_process->state() != QProcess::NotRunning; }
    // Waits for "run" to end by itself; its exit code, -1 when it does not.
    int waitForEnd(int deadlineMs);
    void kill();
    // Asks "run" to end and waits; its exit code.
    int stop();
    // What "run" has printed.
    QString runOutput() const;

    // All events of the given kind, of all runs; of incoming files only where direction is "in".
    QList<QJsonObject> events(const QString& kind, const QString& direction = QString()) const;

    // The files of the inbox with that content, whatever their names on the disk.
    QStringList received(const QByteArray& content) const;
    int receivedCount() const;

private:
    QString m_name;
    QString m_root;
    QString m_output;
    std::unique_ptr<QProcess> m_process;
};

// A file of that name and content, in a directory of its own.
QString makeFile(const QString& name, const QByteArray& content);

// size bytes from the test's seed, different on each call.
QByteArray randomBytes(int size);

} // namespace testsupport
