// What was sent in a run with several lines, and where it must stand: every message that was
// queued is in its sender's queue or, once and whole, in its addressee's inbox. Looks at the
// disks themselves, past the code under test.
#pragma once

#include "host/store/quota.h"
#include "tests/soak/checks.h"

#include <QByteArray>
#include <QString>

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace soak {

struct SentMessage
{
    int from = 0;
    int to = 0;
    QString fileName; // of this message alone
    quint64 id = 0;
    qint64 size = 0;
    QByteArray sha256;
    bool isQueued = false; // its sender was told so
    bool isDelivered = false; // its sender was told so
};

class HubLedger
{
public:
    static const QString rogueName; // known and proved, and keeps to no rule

    // checks: not owned.
    explicit HubLedger(Checks* checks) : m_checks(checks) {}

    // Where site keeps its messages, under which name it is known, what it takes at most.
    void addSite(const std::string& root, const QString& name, const host::InboxLimits& limits);
    const QString& nameOf(int site) const { return m_sites[static_cast<std::size_t>(site)].name; }

    std::size_t add(const SentMessage& message);
    SentMessage& message(std::size_t index) { return m_messages[index]; }
    const std::vector<SentMessage>& messages() const { return m_messages; }

    // The sender's session says that the other side has it.
    void delivered(int from, const QString& fileName);
    // The session there says that it has put one into the inbox.
    void stored(int site);
    // The session there has told a rogue abonent so.
    void acknowledged(int site, const QString& abonent, quint64 id, const QByteArray& sha256);

    // Every inbox and queue as it stands on the disks. Not of sites whose process is between
    // two steps of something else than these.
    void check();
    // The same, and nothing may be taken from an earlier look.
    void checkAnew();

    // What its sender still has to deliver, of those that the addressee takes.
    bool isAllDelivered();
    std::int64_t bytesLeft(int from, int to);
    std::size_t countLeft() const;
    // What strangers offered: they may be told of these.
    std::set<quint64>& strangersIds() { return m_strangersIds; }
    std::uint64_t bytesDelivered() const;
    std::string describeLeft();

private:
    // In an inbox, from nobody who sends as it ought to.
    struct Foreign
    {
        QString from; // empty: a stranger
        quint64 id = 0;
        QByteArray sha256;
        qint64 size = 0;
    };
    struct SiteFiles
    {
        std::string root;
        QString name;
        host::InboxLimits limits;
        std::map<QString, std::size_t> known; // of the inbox: directory, message
        std::map<QString, Foreign> foreign; // by directory
        std::vector<Foreign> acknowledged;
    };

    void checkInbox(int site);
    void checkForeign(SiteFiles& site, const QString& directory, const Foreign& message);
    void checkShares(const SiteFiles& site);
    void checkAcknowledged(const SiteFiles& site);
    void checkParts(const SiteFiles& site);
    static bool stands(const SiteFiles& site, const Foreign& message);
    bool isInInbox(std::size_t index) const;
    std::vector<std::size_t> queuedAt(int site);
    bool fits(const SentMessage& message) const;

    Checks* const m_checks;
    std::vector<SiteFiles> m_sites;
    std::vector<SentMessage> m_messages;
    std::map<QString, std::size_t> m_byName;
    std::set<quint64> m_strangersIds;
};

} // namespace soak
