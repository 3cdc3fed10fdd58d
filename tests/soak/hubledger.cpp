#include "tests/soak/hubledger.h"

#include "tests/soak/hubpaths.h"
#include "tests/soak/simdisk.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>

#include <algorithm>
#include <limits>

namespace soak {

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

constexpr std::size_t nobodys = std::numeric_limits<std::size_t>::max(); // a stranger's message

QStringList directoriesIn(const QDir& dir)
{
    return dir.entryList(QDir::Dirs | QDir::NoDotAndDotDot, QDir::Name);
}

} // namespace

void HubLedger::addSite(const std::string& root, const QString& name, qint64 maxMessageBytes)
{
    m_sites.push_back({root, name, maxMessageBytes, {}, {}});
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
    for (auto it = site.known.begin(); it != site.known.end();)
        it = directories.contains(it->first) ? std::next(it) : site.known.erase(it);
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
        if (size > site.maxMessageBytes)
            m_checks->violation("larger than this inbox takes: " + what);
        const auto sent = m_byName.find(fileName);
        const auto isHonest = [&](const SiteFiles& other) { return other.name == from; };
        if (record[QStringLiteral("proved")] != QJsonValue(sent != m_byName.end()))
            m_checks->violation("in the inbox, and whether its sender was proved is told wrongly: " + what);
        if (sent == m_byName.end()) {
            if (std::any_of(m_sites.begin(), m_sites.end(), isHonest))
                m_checks->violation("in the inbox under the name of one who never sent it: " + what);
            site.known[name] = nobodys;
            site.sizeOfNobodys[name] = size;
            continue;
        }
        const SentMessage& message = m_messages[sent->second];
        if (message.to != index || nameOf(message.from) != from || message.sha256 != hash || message.size != size)
            m_checks->violation("in the inbox, but not as it was sent: " + what);
        if (isInInbox(sent->second))
            m_checks->violation("twice in the inbox: " + what);
        site.known[name] = sent->second;
    }
    checkShareOfStrangers(site);
}

void HubLedger::checkShareOfStrangers(SiteFiles& site)
{
    const host::Share allowed = host::InboxLimits().ofUnproved;
    qint64 count = 0;
    qint64 bytes = 0;
    for (const auto& [name, size] : site.sizeOfNobodys) {
        const bool stands = site.known.count(name) != 0;
        count += stands;
        bytes += stands ? size : 0;
    }
    if (count > allowed.messages || bytes > allowed.bytes)
        m_checks->violation("more of strangers in the inbox than may stand there: " + site.name.toStdString());
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
    for (SiteFiles& site : m_sites)
        site.known.clear();
    check();
}

bool HubLedger::fits(const SentMessage& message) const
{
    return message.size <= m_sites[static_cast<std::size_t>(message.to)].maxMessageBytes;
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
