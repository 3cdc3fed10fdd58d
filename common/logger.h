// The log: one file for each application, user and day, shared by host and plug-ins.
#pragma once

#include <QList>
#include <QMutex>
#include <QString>

class QThread;

// The category of a message. Level 0 and levels above the last are always logged; each other
// one is switched by its own key "Debug/..." of settings.ini, read on every call.
enum DebugLevel
{
    DebugAlways = 0,
    DebugIpcData = 1,
    DebugIpcExtra = 2,
    DebugIpcSecurityDaemon = 3,
    DebugIpcTransport = 4,
    DebugTransportAbonents = 5,
    DebugTransportTransit = 6,
    DebugTransportConnects = 7,
    DebugTransportDataLifetime = 8,
    DebugTransportBaseProtocol = 9,
    DebugTransportProtocol = 10,
    DebugTransportProtocolAttaches = 11,
    DebugTransportIpSocketError = 12,
    DebugTransportComPortError = 13,
    DebugTransportComAtCommands = 14,
    DebugTransportComPackets = 15,
    DebugTransportComData = 16,
    DebugTransportTasks = 17,
    DebugJournals = 18,
    DebugMessagesAutodelete = 19,
    DebugMessagesLock = 20
};

// Only bit 0 is looked at.
enum DebugFlag
{
    DebugFlagNone = 0, // also to the Qt debug stream
    DebugFlagFileOnly = 1 // to the file only
};

// The two records are shared in memory by host and plug-ins that were built apart: their
// members and containers must stay as they are.
struct Tabulation
{
    QThread* thread; // not owned; null when the row is free
    int level; // the column, fixed when the row is appended; from 1
};

struct DebugData
{
    QList<Tabulation> tabs; // rows are freed and taken again, never removed
    QMutex mutex; // not recursive; guards tabs and all access to the log file
};

// Holds the pointer to the current record. Any thread.
class LoggerData
{
public:
    // Makes data the current record; if data is null, makes a new one. The earlier record is
    // not freed; whoever allocated it may still log through it.
    static void initDebug(DebugData* data);

    // The current record, or null while nothing has been logged; not owned.
    static DebugData* debugData();
};

// Appends text to the log, after a time stamp and the right-aligned label; if the text has several
// lines, they are aligned below each other. When it returns, the text is in the file. Any thread;
// failures are reported only on the Qt message streams. A thread that is terminated
// (QThread::terminate) does not end in here. Must not be called with the record's mutex held.
void debug(QString label, const QString& text, DebugLevel level, DebugFlag flag = DebugFlagNone);

// The column of the calling thread, from 1: each thread that logs gets one.
int currentTabLevel();

// Frees the column of thread for another. To be called when a thread ends, from any thread.
void deleteThreadTabLevel(QThread* thread);

// Writes text into the same file in the simplest way: without settings, categories, the shared
// record, its lock and its columns. For times when debug() may not work, as shortly before an
// abnormal end. Any thread; lines of calls at the same time may mix.
void emergecyDebug(const QString& text);
