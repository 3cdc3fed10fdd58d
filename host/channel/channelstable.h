// The host's table of channels: what each port does and how much it has carried.
#pragma once

#include "plugin/api/cabstractchannelsstate.h"

#include <QMutex>
#include <QString>
#include <QVector>

#include <functional>

namespace host {

struct ChannelRow
{
    int id = 0;
    int type = 0;
    QString name;
    QString state;
    qint64 receivedBytes = 0;
    qint64 sentBytes = 0; // confirmed by the peer
    bool isGone = false; // told once, when the channel leaves the table
};

// Any thread may call any operation.
class ChannelsTable : public CAbstractChannelsState
{
public:
    // Called in the calling thread after each change of a state text, and when a channel leaves.
    using StateListener = std::function<void(const ChannelRow&)>;
    explicit ChannelsTable(StateListener listener = {}) : m_listener(std::move(listener)) {}

    int addChannel(int type, const QString& name, const QString& state) override;
    void removeChannel(int id) override;
    void setState(int id, const QString& text) override;
    void addReceivedBytes(int id, int bytes) override;
    void addSentBytes(int id, int bytes) override;

    // How many bytes peers have confirmed over the port of this name, in all calls.
    [[nodiscard]] qint64 sentBytes(const QString& name) const;

    // In the order in which they were added.
    [[nodiscard]] QVector<ChannelRow> rows() const;

private:
    ChannelRow* find(int id);

    const StateListener m_listener;
    mutable QMutex m_mutex; // guards the rest
    QVector<ChannelRow> m_rows;
    int m_nextId = 1;
};

} // namespace host
