// The dial-up channel's server: one port worker for every enabled serial port, and the
// routing of the host's calls, hang-ups and keep-alives to them.
#pragma once

#include "com/worker/ccomthread.h"
#include "plugin/api/cchannelserver.h"

#include <QList>
#include <QMutex>
#include <QString>

// How long internalStop() waits for the workers: 90 % of the host's own stop budget, so
// that the rest is left for cleaning up. The product is one of single precision: in
// double precision 2000 ms would give 1799.
constexpr int workersStopTimeoutMs(int threadStopTimeoutMs)
{
    return static_cast<int>(static_cast<float>(threadStopTimeoutMs) * 0.9f);
}

// Lives in a thread with an event loop; everything but the three polled operations and
// stop() is called there.
class CComServer : public CChannelServer
{
    Q_OBJECT

public:
    CComServer();

    // Deletes the workers, which must have been stopped before.
    ~CComServer() override;

    // The channel's display name, and the source of the server's journal records.
    static QString name();

    // Polled from any thread.
    bool hasFreeChannel() const override; // a worker is free
    bool isHardwareOn() const override; // a worker's device has answered
    bool canCheckOnline() const override; // never

    void start() override;
    void stop() override;

    // Reads channelCom.conf into gComSettings; what cannot be read is logged and leaves
    // the channel without ports.
    void loadSettings();

    // Makes and starts one worker for each enabled port. The list of workers must be empty.
    void internalStart();

    // Stops the workers, terminates those that do not end in time, and deletes them.
    // Blocks for up to the workers' stop timeout and a little more.
    void internalStop();

    // Deletes the workers; they must have ended.
    void clear();

public slots:
    // Inherited, but declared again: internalStopSlot must be this class's own method 4.
    void settingsWasChanged() override;
    void connectToAbonent(const QString& abonentName, const QByteArray& abonentsData) override;
    void disconnectFromAbonent(const QString& abonentName, int connectionId) override;
    void keepAliveConnection(int connectionId) override;

protected:
    // For the server's thread; they live until the next clear().
    QList<CComThread*> workers() const;

private slots:
    // Queued by stop() when another thread calls it.
    void internalStopSlot();

private:
    void terminateRunning(qint64 waitMs);

    QList<CComThread*> threads; // owned; in the order of the enabled ports

    // Guards the list alone: the polled operations may look at it while clear() empties
    // it. A leaf: nothing is called out to and no other lock is taken while it is held.
    mutable QMutex threadsMutex;
};
