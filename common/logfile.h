// Which file is logged to, and writing to it.
#pragma once

#include <QDir>
#include <QFile>
#include <QString>

// The directory and file that a process logs to: found once, kept across midnight, found again
// after a failure.
class LogTarget
{
public:
    // Finds the current secrecy level, today's file and its directory, unless they are known.
    void find();
    void forget() { m_secrecy = -1; }

    const QDir& directory() const { return m_directory; }
    const QString& filePath() const { return m_filePath; }
    const QByteArray& encodedPath() const { return m_encodedPath; } // of the same, for the system

private:
    int m_secrecy = -1; // the level for which the paths were computed; -1: unknown
    QDir m_directory;
    QString m_filePath;
    QByteArray m_encodedPath;
};

// The usual case, with a single system call: opens the log as long as this object lives, and
// reports nothing if the log is not there or does not open. Without QFile, which makes two more
// system calls and costs as much again as opening, writing and closing.
class ExistingLog
{
public:
    explicit ExistingLog(const QByteArray& encodedPath);
    ~ExistingLog();
    ExistingLog(const ExistingLog&) = delete;
    ExistingLog& operator=(const ExistingLog&) = delete;

    bool isOpen() const { return m_descriptor >= 0; }
    int descriptor() const { return m_descriptor; }

private:
    const int m_descriptor;
};

// Writes as QFile does, until everything is written or the system refuses. Returns how many bytes
// were written; if there were bytes and none was written, -1, with the reason in errno.
qint64 writeToLog(int descriptor, const char* data, qint64 size);

// Opens the log for appending, unbuffered (a buffered file reports success on a full disk).
// Reports a failure.
bool openLog(QFile& file);

// Creates the directory with its parents. Reports a failure.
bool createLogDirectory(const QDir& directory);

// "hh:mm:ss.zzz"
QString logTimeStamp();

void reportLogWriteError(const QString& reason);
