// The server with modems at its ports that answer.
#pragma once

#include "tests/boundary/answeringmodem.h"
#include "tests/boundary/serverfixture.h"

#include <memory>
#include <vector>

inline const QStringList usualDetails{QStringLiteral("transportComOpenInterval=20"),
                                      QStringLiteral("transportComDsrCheckInterval=20"),
                                      QStringLiteral("transportComResetTimeout=1100"),
                                      // A busy machine must not make a modem look silent.
                                      QStringLiteral("transportComAtOkTimeout=20000")};

class ServerCalls : public ServerTest
{
protected:
    void SetUp() override
    {
        ServerTest::SetUp();
        writeDetails(usualDetails);
    }

    // The workers use the modems' ptys to their end.
    void TearDown() override
    {
        stopAndDelete();
        modems.clear();
    }

    AnsweringModem& addModem(const QString& name, int lines = sim::SignalDsr | sim::SignalCts)
    {
        modems.push_back(std::make_unique<AnsweringModem>(name, lines));
        return *modems.back();
    }

    QList<TestPort> modemPorts() const
    {
        QList<TestPort> ports;
        for (const auto& modem : modems)
            ports.append(TestPort{modem->portPath()});
        return ports;
    }

    void start()
    {
        writeSettings(modemPorts());
        if (thread)
            inServerThread([this] { server->start(); });
        else
            server->start();
    }

    bool waitForState(int worker, int state) const
    {
        return rig::waitFor([&] { return server->workers().at(worker)->state() == state; });
    }

    // Two modems that are free, "modemA" and "modemB".
    void startTwoFree()
    {
        addModem(QStringLiteral("modemA"));
        addModem(QStringLiteral("modemB"));
        start();
        ASSERT_TRUE(waitForState(0, CComThread::LineFree));
        ASSERT_TRUE(waitForState(1, CComThread::LineFree));
    }

    // Places a call through the port of the modem and waits for the session.
    void connectThrough(AnsweringModem& modem, const QString& peerName)
    {
        factory->setPeerName(peerName);
        modem.setAnswer("ATD", "CONNECT 9600");
        const int before = emitted.entriesWith(QStringLiteral("connected ")).size();
        server->connectToAbonent(peerName, abonentBytes(QStringLiteral("123"), {modem.portPath()}));
        ASSERT_TRUE(rig::waitFor([&] { return emitted.entriesWith(QStringLiteral("connected ")).size() > before; }));
    }

    bool dialled(const AnsweringModem& modem) const
    {
        return !modem.commands().filter(QStringLiteral("ATD")).isEmpty();
    }

    bool lostConnectionIsLogged() const { return logText().contains(QStringLiteral("Не удалось найти соединение")); }

    std::vector<std::unique_ptr<AnsweringModem>> modems;
};
