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

    // A silent side says something after so long (five times that, but at most a third of
    // silenceMs, while much comes in and nothing else was said lately), since it frees packets
    // held behind a gap: a filler, or an Alive when it has said nothing else for aliveMs, or a
    // third of silenceMs. The other side's silenceMs should be the same.
    int heartbeatMs = 1000;
    int aliveMs = 10000;
    // Nothing came for so long: the connection is dead. On a line of 1200 bit/s a minute
    // may well pass between two packets that bring anything new, since a driver full of
    // repeats (4 KiB, 35 s) stands in front of them.
    int silenceMs = 120000;
    int stallMs = 600000; // acknowledgements are due and nothing but heartbeats came for so long (a full
                          // queue alone takes two minutes at 1200 bit/s)
    int openingMs = 60000; // the other side has not said who it is after so long
    int uselessMs = 300000; // nothing of use came or went for so long, and our host does not keep the session
    int strangerMs = 900000; // in all, for a peer that is not proved
    int closingMs = 300; // time for a last Stop frame to get out
    int refusingMs = 5000; // time for the reason of a refusal; at 1200 bit/s its words alone take a second
    int lingerMs = 10000; // the side that agreed to end waits for the other to hang up, at most so long,
    int lingerSilenceMs = 2500; // or until it has been silent for so long
};

} // namespace host
