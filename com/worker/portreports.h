// The reports of a port: to the host's table of channels, to its journal, and to the log.
#pragma once

#include "common/logger.h"

#include <QString>

class CAbstractChannelsState;
class CChannelServer;

// The worker's thread and the server's use it.
class PortReports
{
public:
    // server: not owned; gives the host's objects. They must be set before the first report.
    PortReports(CChannelServer* server, const QString& portName);

    // Adds the port's row to the host's table, and removes it. For the worker's thread.
    void enterTable(const QString& state);
    void leaveTable();

    // The row's identifier; 0 until it was taken.
    int index() const { return m_index; }

    static void writeLog(const QString& text, DebugLevel level);

    // The state text of the row.
    void setStatus(const QString& text) const;
    // A journal record.
    void addEvent(const QString& text) const;
    void addError(const QString& text) const;
    // State text and event.
    void report(const QString& text) const;

private:
    CChannelServer* const m_server; // not owned
    const QString m_portName;
    // The table with the row: not owned. Kept here, because a worker that could not be ended removes
    // its row when the server may be gone.
    CAbstractChannelsState* m_table = nullptr;
    int m_index = 0;
};
