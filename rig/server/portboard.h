// The host objects of a stress test: they keep what each port says of itself, count, and
// note what a server must never do to its host. Any thread.
#pragma once

#include "plugin/api/cabstractchannelsstate.h"
#include "plugin/api/cabstractjournal.h"

#include <QElapsedTimer>
#include <QMap>
#include <QMutex>
#include <QString>
#include <QStringList>

#include <atomic>

namespace rig {

class PortBoard : public CAbstractChannelsState
{
public:
    explicit PortBoard(int serverId);

    int addChannel(int type, const QString& name, const QString& state) override;
    void removeChannel(int id) override;
    void setState(int id, const QString& text) override;
    void addReceivedBytes(int id, int bytes) override;
    void addSentBytes(int id, int bytes) override;

    // "port: text, for so many ms" for each port that is registered, and the server.
    QStringList lines() const;
    int count() const; // ports registered
    bool isFree(const QString& port) const;
    int countOf(const QString& text) const; // of these, ports that say exactly this
    // Since the last port went away; -1 when none ever did.
    qint64 msSinceLastRemoval() const;
    // Ports touched that were not registered, registered twice, and the like.
    QStringList violations() const;

private:
    struct Port
    {
        QString name;
        QString text;
        QElapsedTimer since;
    };

    void touch(int id, const char* what);

    const int m_serverId;
    mutable QMutex m_mutex; // guards all below
    QMap<int, Port> m_ports;
    QString m_serverText;
    QStringList m_violations;
    QElapsedTimer m_lastRemoval;
    int m_lastId;
    int m_added = 0;
};

class CountingJournal : public CAbstractJournal
{
public:
    void addRecord(int kind, const QString& source, const QString& text) override;
    int count() const { return m_count; }

private:
    std::atomic<int> m_count{0};
};

} // namespace rig
