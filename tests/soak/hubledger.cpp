#include "tests/soak/hubledger.h"

#include "host/installation/diskfile.h"
#include "rig/time/simdisk.h"
#include "tests/soak/hubpaths.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>

#include <algorithm>
#include <limits>

namespace soak {

using namespace rig;

namespace {

QJsonObject recordOf(const QString& path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? QJsonDocument::fromJson(file.readAll()).object() : QJsonObject();
}

QByteArray hashOf(const QString& path, qint64* size)
{
    QFile file(path);
    QCryptographicHash hash(QCryptographicHash::Sha256);
    *size = -1;
    if (!file.open(QIODevice::ReadOnly) || !hash.addData(&file))
        return QByteArray();
    *size = file.size();
    return hash.result();
}

constexpr std::size_t nobodys = std::numeric_limits<std::size_t>::max(); // a message of none that was sent
constexpr int heldParts = 8; // by as many lines, beside those that may stay

QStringList directoriesIn(const QDir& dir)
{
    return dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

} // namespace

const QString HubLedger::rogueName = QStringLiteral("Rogue");

void HubLedger::addSite(const std::string& root, const QString& name, const host::InboxLimits& limits)
{
    m_sites.push_back({root, name, limits, {}, {}, {}});
}

std::size_t HubLedger::add(const SentMessage& message)
{
    m_byName[message.fileName] = m_messages.size();
    m_messages.push_back(message);
    return m_messages.size() - 1;
}

void HubLedger::delivered(int from, const QString& fileName)
{
    Directly directly;
    const auto found = m_byName.find(fileName);
    if (found == m_byName.end() || m_messages[found->second].from != from) {
        m_checks->violation("delivered, but never sent: " + fileName.toStdString());
        return;
    }
    SentMessage& message = m_messages[found->second];
    message.isDelivered = true;
    checkInbox(message.to);
    if (!isInInbox(found->second))
        m_checks->violation("told as delivered, but not in the inbox: " + fileName.toStdString());
}

void HubLedger::stored(int site)
{
    Directly directly;
    checkInbox(site);
}

void HubLedger::acknowledged(int index, const QString& abonent, quint64 id, const QByteArray& sha256)
{
    Directly directly;
    SiteFiles& site = m_sites[static_cast<std::size_t>(index)];
    site.acknowledged.push_back({abonent, id, sha256, 0});
    if (!stands(site, site.acknowledged.back()))
        checkInbox(index);
    if (!stands(site, site.acknowledged.back()))
        m_checks->violation("acknowledged, but not in the inbox: " + host::idText(id).toStdString());
}

bool HubLedger::stands(const SiteFiles& site, const Foreign& message)
{
    return std::any_of(site.foreign.begin(), site.foreign.end(), [&](const auto& entry) {
        const Foreign& other = entry.second;
        return other.from == message.from && other.id == message.id && other.sha256 == message.sha256;
    });
}

bool HubLedger::isInInbox(std::size_t index) const
{
    const auto& known = m_sites[static_cast<std::size_t>(m_messages[index].to)].known;
    return std::any_of(known.begin(), known.end(), [index](const auto& entry) { return entry.second == index; });
}

void HubLedger::checkInbox(int index)
{
    SiteFiles& site = m_sites[static_cast<std::size_t>(index)];
    const QDir input = hubPaths(site.root).input;
    const QStringList directories = directoriesIn(input);
    const QSet<QString> standing(directories.begin(), directories.end());
    for (auto it = site.known.begin(); it != site.known.end();) {
        const bool isThere = standing.contains(it->first);
        if (!isThere)
            site.foreign.erase(it->first);
        it = isThere ? std::next(it) : site.known.erase(it);
    }
    for (const QString& name : directories) {
        if (site.known.count(name) != 0)
            continue;
        const QString path = input.absoluteFilePath(name);
        const QJsonObject record = recordOf(path + QStringLiteral("/.message"));
        const QString fileName = record[QStringLiteral("name")].toString();
        const QString from = record[QStringLiteral("from")].toString();
        qint64 size = 0;
        const QByteArray hash = hashOf(path + QLatin1Char('/') + record[QStringLiteral("file")].toString(), &size);
        const std::string what = (site.name + QLatin1Char(' ') + name + QLatin1Char(' ') + fileName).toStdString();
        if (hash.isEmpty() || hash != QByteArray::fromHex(record[QStringLiteral("sha256")].toString().toLatin1()))
            m_checks->violation("in the inbox, but not what its record says: " + what);
        if (size > site.limits.maxMessageBytes)
            m_checks->violation("larger than this inbox takes: " + what);
        const auto sent = m_byName.find(fileName);
        const auto isHonest = [&](const SiteFiles& other) { return other.name == from; };
        const bool isProved = record[QStringLiteral("proved")].toBool();
        if (sent == m_byName.end()) {
            if (std::any_of(m_sites.begin(), m_sites.end(), isHonest))
                m_checks->violation("in the inbox under the name of one who never sent it: " + what);
            if (isProved != (from == HubLedger::rogueName))
                m_checks->violation("in the inbox, and whether its sender was proved is told wrongly: " + what);
            site.known[name] = nobodys;
            checkForeign(
                site, name,
                {isProved ? from : QString(), host::idFromText(record[QStringLiteral("id")].toString()), hash, size});
            continue;
        }
        if (!isProved)
            m_checks->violation("in the inbox, and whether its sender was proved is told wrongly: " + what);
        const SentMessage& message = m_messages[sent->second];
        if (message.to != index || nameOf(message.from) != from || message.sha256 != hash || message.size != size)
            m_checks->violation("in the inbox, but not as it was sent: " + what);
        if (isInInbox(sent->second))
            m_checks->violation("twice in the inbox: " + what);
        site.known[name] = sent->second;
    }
    checkShares(site);
}

void HubLedger::checkForeign(SiteFiles& site, const QString& directory, const Foreign& message)
{
    const std::string what = (site.name + QLatin1Char(' ') + directory).toStdString();
    if (message.id == host::noMessageId)
        m_checks->violation("in the inbox with the identifier 0: " + what);
    site.foreign.erase(directory);
    if (!message.from.isEmpty() && stands(site, message))
        m_checks->violation("twice in the inbox: " + what);
    site.foreign[directory] = message;
}

void HubLedger::checkShares(const SiteFiles& site)
{
    std::map<QString, host::Share> shares;
    for (const auto& [name, message] : site.foreign) {
        if (site.known.count(name) != 0)
            shares[message.from] = shares[message.from] + host::Share{message.size, 1, host::inodesOfMessage};
    }
    for (const auto& [from, share] : shares) {
        if (!host::fits(share, from.isEmpty() ? site.limits.ofUnproved : site.limits.ofAbonent))
            m_checks->violation("more of one in the inbox than may stand there: " + site.name.toStdString() + ", of " +
                                (from.isEmpty() ? "strangers" : from.toStdString()));
    }
}

void HubLedger::checkAcknowledged(const SiteFiles& site)
{
    for (const Foreign& message : site.acknowledged) {
        if (!stands(site, message))
            m_checks->violation("acknowledged, and gone from the inbox: " + host::idText(message.id).toStdString());
    }
}

// What stands of messages: of each peer a few, and none that cannot be told from others.
void HubLedger::checkParts(const SiteFiles& site)
{
    std::map<QString, int> parts;
    const QDir incomplete = hubPaths(site.root).incomplete;
    for (const QString& name : directoriesIn(incomplete)) {
        const QJsonObject record = recordOf(incomplete.absoluteFilePath(name) + QStringLiteral("/.message"));
        if (record.isEmpty())
            continue;
        if (host::idFromText(record[QStringLiteral("id")].toString()) == host::noMessageId)
            m_checks->violation("a part with the identifier 0: " + site.name.toStdString());
        ++parts[record[QStringLiteral("from")].toString()];
    }
    for (const auto& [from, count] : parts) {
        if (count > site.limits.maxPartsOfAbonent + heldParts)
            m_checks->violation("too many parts of one peer: " + site.name.toStdString() + ", of " +
                                from.toStdString());
    }
}

std::vector<std::size_t> HubLedger::queuedAt(int site)
{
    const host::StorePaths paths = hubPaths(m_sites[static_cast<std::size_t>(site)].root);
    std::vector<std::size_t> queued;
    for (const QString& task : paths.tasks.entryList({QStringLiteral("*.task")}, QDir::Files, QDir::Name)) {
        const QJsonObject record = recordOf(paths.tasks.absoluteFilePath(task));
        const auto found = m_byName.find(record[QStringLiteral("name")].toString());
        if (found == m_byName.end())
            continue;
        qint64 size = 0;
        const QString key = record[QStringLiteral("message")].toString();
        if (hashOf(paths.output.absoluteFilePath(key + QStringLiteral("/content")), &size) ==
            m_messages[found->second].sha256)
            queued.push_back(found->second);
    }
    return queued;
}

void HubLedger::check()
{
    Directly directly;
    std::vector<bool> isQueued(m_messages.size());
    for (int site = 0; site < static_cast<int>(m_sites.size()); ++site) {
        checkInbox(site);
        checkAcknowledged(m_sites[static_cast<std::size_t>(site)]);
        checkParts(m_sites[static_cast<std::size_t>(site)]);
        for (const std::size_t index : queuedAt(site))
            isQueued[index] = true;
    }
    for (std::size_t index = 0; index < m_messages.size(); ++index) {
        SentMessage& message = m_messages[index];
        // Its sender died between the two.
        if (message.isQueued && !isQueued[index] && isInInbox(index))
            message.isDelivered = true;
        if (message.isQueued && !isQueued[index] && !isInInbox(index))
            m_checks->violation("neither queued nor in the inbox: " + message.fileName.toStdString());
        if (message.isDelivered && !isInInbox(index))
            m_checks->violation("delivered, and gone from the inbox: " + message.fileName.toStdString());
    }
}

void HubLedger::checkAnew()
{
    for (SiteFiles& site : m_sites) {
        site.known.clear();
        site.foreign.clear();
    }
    check();
}

bool HubLedger::fits(const SentMessage& message) const
{
    return message.size <= m_sites[static_cast<std::size_t>(message.to)].limits.maxMessageBytes;
}

bool HubLedger::isAllDelivered()
{
    return std::all_of(m_messages.begin(), m_messages.end(), [this](const SentMessage& message) {
        return !message.isQueued || message.isDelivered || !fits(message);
    });
}

std::int64_t HubLedger::bytesLeft(int from, int to)
{
    std::int64_t bytes = 0;
    for (const SentMessage& message : m_messages) {
        if (message.from == from && message.to == to && message.isQueued && !message.isDelivered && fits(message))
            bytes += message.size;
    }
    return bytes;
}

std::size_t HubLedger::countLeft() const
{
    return static_cast<std::size_t>(
        std::count_if(m_messages.begin(), m_messages.end(), [this](const SentMessage& message) {
            return message.isQueued && !message.isDelivered && fits(message);
        }));
}

std::uint64_t HubLedger::bytesDelivered() const
{
    std::uint64_t bytes = 0;
    for (const SentMessage& message : m_messages)
        bytes += message.isDelivered ? static_cast<std::uint64_t>(message.size) : 0;
    return bytes;
}

std::string HubLedger::describeLeft()
{
    std::string text;
    for (const SentMessage& message : m_messages) {
        if (message.isQueued && !message.isDelivered && fits(message))
            text += ' ' + message.fileName.toStdString() + " (" + nameOf(message.from).toStdString() + " to " +
                    nameOf(message.to).toStdString() + ')';
    }
    return text;
}

} // namespace soak
