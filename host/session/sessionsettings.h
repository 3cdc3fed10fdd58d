// What the host decides for its sessions.
#pragma once

#include "host/session/handshakeguard.h"

#include <QString>

#include <memory>

namespace host {

class KeyPair;

struct SessionSettings
{
    QString abonentName; // our own
    std::shared_ptr<const KeyPair> identity;
    std::shared_ptr<HandshakeGuard> guard; // null: answers are never slowed down

    // A side that has nothing to say sends a heartbeat after heartbeatMs, because each packet makes
    // the link deliver what it holds behind a gap. While a file comes in and nothing else was said
    // for some time, it waits five times as long, but at most a third of silenceMs. A heartbeat is a
    // filler; it is an Alive when nothing else was said for aliveMs or a third of silenceMs. Both
    // sides should have the same silenceMs.
    int heartbeatMs = 1000;
    int aliveMs = 10000;
    // When nothing came for so long, the connection is dead. At 1200 bit/s a minute can pass between
    // two packets with new data, because repeats that fill the driver (4 KiB, 35 s) go first.
    int silenceMs = 120000;
    int stallMs = 600000; // acknowledgements are due, and only heartbeats came for so long (a full queue
                          // alone takes two minutes at 1200 bit/s)
    int openingMs = 60000; // the other side has not said who it is after so long
    int uselessMs = 300000; // nothing useful came or went for so long, and our host does not keep the session
    int strangerMs = 900000; // the whole session with a peer that is not proved
    int closingMs = 300; // time for sending a last Stop frame
    int refusingMs = 5000; // time for sending the reason of a refusal, which takes a second at 1200 bit/s
    int lingerMs = 10000; // the side that agreed to end waits for the other to hang up, at most so long,
    int lingerSilenceMs = 2500; // or until it has been silent for so long
};

} // namespace host
