// An abonent that is known and proved, and calls on two lines at once to spoil what the one
// brings with what the other says: the same message rewritten while it is put into the inbox,
// or after its beginning was hashed, stubs that grow, more than its share, floods, idleness.
#pragma once

#include "rig/rng.h"
#include "tests/soak/checks.h"
#include "tests/soak/hubcaller.h"
#include "tests/soak/hubledger.h"
#include "tests/soak/hubline.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <vector>

namespace soak {

class HubSite;

// One of its two calls.
class HubRogueEnd : public HubCaller
{
public:
    // own: identifiers that the abonent ever used. Nothing is owned.
    HubRogueEnd(HubLine* line, int site, HubLedger* ledger, Checks* checks, rig::Rng* rng, std::set<quint64>* own)
        : HubCaller(line, rng), m_site(site), m_ledger(ledger), m_checks(checks), m_own(own)
    {
    }

    bool open(); // handshake, name, state
    void close();

    // And of content the bytes from the offer's offset up to sent. The offer's number.
    std::size_t propose(const host::OfferFrame& offer, const QByteArray& content, int sent);
    void goOn(const QByteArray& bytes) { say(host::FrameType::Data, bytes); }
    [[nodiscard]] bool mayFlood() const { return m_mayFlood; } // its state is not told to the end
    void flood();
    [[nodiscard]] bool isAnswered(std::size_t offer) const { return isStored(offer) || isRefused(offer); }
    [[nodiscard]] bool isStored(std::size_t offer) const { return m_offers[offer].isStored; }
    [[nodiscard]] bool isRefused(std::size_t offer) const { return m_offers[offer].isRefused; }
    [[nodiscard]] bool isStopped() const { return m_isStopped || isLost(); }
    [[nodiscard]] qint64 standing(quint64 id) const; // as the other side told; 0: nothing

private:
    struct Offered
    {
        quint64 id = 0;
        QByteArray sha256;
        bool isStored = false;
        bool isRefused = false;
    };

    void onFrame(const host::Frame& frame) override;
    void onDamage() override { m_checks->violation("says to an abonent what does not open"); }
    void onState(const host::Frame& frame);
    void onStored(const host::Frame& frame);

    const int m_site;
    HubLedger* const m_ledger; // not owned
    Checks* const m_checks; // not owned
    std::set<quint64>* const m_own; // not owned
    std::vector<Offered> m_offers; // of this call
    std::map<quint64, qint64> m_standing;
    bool m_isInOffer = false; // more was announced than said
    bool m_isStopped = false;
    bool m_mayFlood = false;
};

class HubRogue
{
public:
    static constexpr int keyNumber = 200;

    // Nothing is owned.
    HubRogue(HubLine* first, HubLine* second, HubSite* site, HubLedger* ledger, Checks* checks, std::uint64_t seed);

    // In a fiber, until setOver().
    void live();
    void setOver() { m_over = true; }

private:
    void call();
    void leaveStub();
    void misbehave();
    void rewriteWhileStored();
    void rewriteHashed();
    void resumeWhileStored();
    void grow();
    void goOnAsAnother();
    void resumeWhenShort();
    void offerNobodys();
    void hoard();
    void flood();
    void idle();
    void fillWhileItComes();

    bool await(const std::function<bool()>& holds, std::int64_t ns); // hears meanwhile
    void hearFor(std::int64_t ns);
    void hearOf(HubRogueEnd& end, std::int64_t latestNs); // all it said has arrived, and a little more
    QByteArray random(qint64 low, qint64 high);
    quint64 newId();

    HubSite* const m_site; // not owned
    Checks* const m_checks; // not owned
    rig::Rng m_rng;
    std::set<quint64> m_own;
    HubRogueEnd m_first;
    HubRogueEnd m_second;
    bool m_over = false;
    // What a call before left of a message.
    quint64 m_stubId = 0;
    QByteArray m_stub; // the whole content
    int m_stubBytes = 0; // said of it
};

} // namespace soak
