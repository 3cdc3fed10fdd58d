// The server under test and its settings, written item by item from their description.
#pragma once

#include "com/worker/ccomserver.h"

#include <QByteArray>
#include <QList>
#include <QString>
#include <QStringList>

constexpr int serverStateId = 7;

// One port of a settings file; what a test does not name is what a modem wants.
struct TestPort
{
    QString name;
    bool enabled = true;
    QString initString = {};
    int baudRate = 115200;
    int flowControl = 0;
    int dataBits = 8;
    int parity = 0;
    int stopBits = 1;
};

QByteArray channelBytes(const QList<TestPort>& ports, int packetSize = 1024);
QByteArray abonentBytes(const QString& number, const QStringList& allowedPorts = {});

// Shows its workers.
class TestedServer : public CComServer
{
public:
    using CComServer::workers;
};
