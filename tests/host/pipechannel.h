// Two ends of a byte channel in memory, for protocols that run in one thread.
#pragma once

#include "plugin/api/cchannel.h"

#include <QByteArray>
#include <QVector>

namespace hosttest {

class PipeChannel : public CChannel
{
public:
    explicit PipeChannel(int offeredBytes = 1024) : offered(offeredBytes) { type = 2; }
    ~PipeChannel() override
    {
        if (peer)
            peer->peer = nullptr;
    }

    static void join(PipeChannel* a, PipeChannel* b)
    {
        a->peer = b;
        b->peer = a;
    }

    void disconnectFromAbonent() override { isUp = false; }
    bool isConnected() override { return isUp && peer && peer->isUp; }
    void write(const QByteArray& data) override
    {
        written.append(data);
        if (peer)
            peer->incoming.append(data);
    }
    QByteArray read(int maxSize) override
    {
        ++reads;
        const QByteArray bytes = incoming.left(maxSize);
        incoming.remove(0, bytes.size());
        if (peer)
            peer->confirmedBytes += bytes.size();
        return bytes;
    }
    int idealBlockSize() override { return peer && peer->incoming.size() > 10240 ? 0 : offered; }

    int offered;
    PipeChannel* peer = nullptr; // not owned
    QByteArray incoming;
    QVector<QByteArray> written;
    bool isUp = true;
    int reads = 0;
    qint64 confirmedBytes = 0; // of what was written, read by the peer
};

} // namespace hosttest
