// A peer whose frames are written by hand.
#pragma once

#include "rig/host/sealedpeer.h"
#include "tests/host/sessionpair.h"

#include <QCryptographicHash>
#include <QVector>
#include <gtest/gtest.h>

namespace hosttest {

class Impostor
{
public:
    // isCaller: side waits for calls.
    explicit Impostor(SessionPair::Side* side, bool isCaller = false) : m_side(side), m_peer(isCaller) {}

    void sayHello(const QString& name = QStringLiteral("Mallory"))
    {
        host::HelloFrame hello;
        hello.abonentName = name;
        say(host::FrameType::Hello, hello.encode());
    }

    void sayHelloAndState()
    {
        sayHello();
        say(host::FrameType::State, host::StateFrame().encode());
    }

    void say(host::FrameType type, const QByteArray& payload = QByteArray())
    {
        if (!m_peer.isOpen()) {
            ASSERT_TRUE(m_peer.shakeHands(m_side->session.get(), now));
        }
        m_side->session->receive(m_peer.seal(type, payload), now);
    }

    // What the session says, frame by frame.
    QVector<host::Frame> hear(int mostBytes = 1 << 30)
    {
        QVector<host::Frame> frames;
        for (QByteArray piece; mostBytes > 0 && !(piece = m_side->session->takeOutput(500, now)).isEmpty();
             mostBytes -= piece.size())
            m_peer.append(piece);
        host::Frame frame;
        while (m_peer.next(&frame) == host::FrameReader::Result::Frame)
            frames.append(frame);
        return frames;
    }

    bool hears(host::FrameType type)
    {
        for (const host::Frame& frame : hear()) {
            if (frame.type == type)
                return true;
        }
        return false;
    }

    // After a violation: the session says why and ends in time.
    void expectEnded(const QString& reason)
    {
        EXPECT_TRUE(hears(host::FrameType::Stop));
        now += 1000;
        m_side->session->advance(now);
        EXPECT_TRUE(m_side->session->isFinished());
        EXPECT_FALSE(m_side->session->endedWell());
        EXPECT_EQ(m_side->session->endReason(), reason);
    }

    host::OfferFrame offer(const QByteArray& content, const QString& name = QStringLiteral("x"))
    {
        host::OfferFrame offer;
        offer.messageId = m_nextId++;
        offer.size = content.size();
        offer.sha256 = QCryptographicHash::hash(content, QCryptographicHash::Sha256);
        offer.fileName = name;
        return offer;
    }

    qint64 now = 1000;

private:
    SessionPair::Side* m_side; // not owned
    rig::SealedPeer m_peer;
    quint64 m_nextId = 77;
};

} // namespace hosttest
